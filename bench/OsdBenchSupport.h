// One OSD business on the stand-in for the OSD benchmarks and the callgrind driver, the
// parameter documents they apply, and the floor: the same two overlay messages a cycle sends,
// built the cheapest way and handed to the same bus send.
#ifndef TRUCK_BENCH_OSDBENCHSUPPORT_H
#define TRUCK_BENCH_OSDBENCHSUPPORT_H

#include <stdio.h>
#include <string.h>

#include <vector>

#include <json/json.h>

#include "CommonDefine.h"
#include "JQ_SDK_DateTime.h"
#include "NvxControl.h"
#include "TruckOsdService.h"
#include "TruckServiceManage.h"

namespace osdbench {

// Local time from the time zone, ISO date, 24-hour time, Seven line on: the usual setting.
const char kLocalDocument[] =
    "{\"PARAMETER\":{\"MDVR\":{"
    "\"TIMEP\":{\"TIMEZ\":\"480\",\"TIMEZEX\":\"0\",\"DATEM\":1,\"TIMEM\":0,\"DST\":{\"SW\":0},\"LDST\":{"
    "\"SW\":0}},"
    "\"EOSD\":[{\"COSD\":[{\"X\":400,\"Y\":80,\"EN\":1},{\"X\":15,\"Y\":380}],"
    "\"TX\":300,\"TY\":30,\"TFS\":1,\"SX\":1024,\"SY\":30}]}}}";

// The device clock plus the second time zone, with the business's own week-rule daylight
// saving, which it works out again on every cycle: the dearest time line.
const char kUtcDstDocument[] =
    "{\"PARAMETER\":{\"MDVR\":{"
    "\"TIMEP\":{\"TIMEZ\":\"0\",\"TIMEZEX\":\"-300\",\"DATEM\":1,\"TIMEM\":0,\"DST\":{\"SW\":0},"
    "\"LDST\":{\"SW\":1,\"DSTM\":1,\"DSTS\":1,\"SMON\":2,\"SWEEK\":2,\"SWIND\":0,\"SH\":2,"
    "\"EMON\":10,\"EWEEK\":1,\"EWIND\":0,\"EH\":2}},"
    "\"EOSD\":[{\"COSD\":[{\"X\":400,\"Y\":80,\"EN\":1},{\"X\":15,\"Y\":380}],"
    "\"TX\":300,\"TY\":30,\"TFS\":1,\"SX\":1024,\"SY\":30}]}}}";

// What the speed line shows: 63 km/h with the left IO turn signal, "63KM/H (L)".
const uint32_t kSpeed = 63;

class OsdBusiness {
public:
    OsdBusiness() {
        memset(&m_config, 0, sizeof(m_config));
        m_config.usVideoInNum = 4;
        m_manage = std::make_shared<CTruckServiceManage>(&m_config);
        // A client of its own makes the business a shared-thread one: it runs on the caller's thread.
        m_client = new CMsgClientManage("osdbench", kTruckClientDepth, nullptr);
        Json::Value param(Json::objectValue);
        m_osd = new CTruckOsdService(m_manage.get(), m_client, 7, m_name, 0, param);
    }
    ~OsdBusiness() {
        delete m_osd;  // a shared-thread business leaves its client to its maker
        delete m_client;
        m_manage.reset();
    }
    OsdBusiness(const OsdBusiness&) = delete;
    OsdBusiness& operator=(const OsdBusiness&) = delete;

    CTruckOsdService& osd() { return *m_osd; }
    CMsgClientManage& client() { return *m_client; }

    // Applies a document as the business's queue hands it over; true once both groups are in,
    // as the cycle requires before it sends anything.
    bool Apply(const char* document) {
        std::vector<AsynCallbackParaNode_t> nodes(1);
        nodes[0].pData = document;
        nodes[0].iLen = static_cast<int>(strlen(document));
        nodes[0].iReserved = 0;
        m_osd->OSDEventHandle(nodes);
        return m_osd->m_uiParamPending == 0;
    }

    // Through the speed notification, as the bus would deliver it.
    void SetSpeedAndTurn() {
        unsigned char notification[28] = {0};
        TruckPutLE32(notification + 24, kSpeed);
        m_osd->OnUpdateSpeedInfo(reinterpret_cast<const char*>(notification), sizeof(notification));
        m_osd->m_IOturnState.store(1);
    }

    // What business_cycle_running does twice a second once its parameters are in.
    void Cycle() {
        m_osd->OSDDataSendTime();
        m_osd->OSDDataSendSpeed();
    }

private:
    tagGlobalConfig m_config;
    char m_name[4] = "osd";
    std::shared_ptr<CTruckServiceManage> m_manage;
    CMsgClientManage* m_client;
    CTruckOsdService* m_osd;
};

inline std::vector<nvx::BusMessage> SentOverlays() {
    std::vector<nvx::BusMessage> out;
    for (nvx::BusMessage& message : nvx::SentMessages()) {
        if (message.event == kOsdEventOverlay) {
            out.push_back(std::move(message));
        }
    }
    return out;
}

// The two messages of a local-time cycle, each built with one memcpy of its header and one
// snprintf of its text into a stack buffer, and sent through the business's client. The
// headers are the ones the business itself sent, so the bytes on the bus are the same; the
// date is read with the same platform call the business makes.
class Floor {
public:
    // Takes the headers from one cycle of `business` (local-time document applied, speed and
    // turn set), then checks that one build of its own sends the same messages.
    bool Learn(OsdBusiness& business) {
        nvx::ClearSentMessages();
        business.Cycle();
        std::vector<nvx::BusMessage> theirs = SentOverlays();
        if (theirs.size() != 2 || theirs[0].payload.size() <= kOsdOverlayHeaderSize ||
            theirs[1].payload.size() <= kOsdOverlayHeaderSize) {
            return false;
        }
        m_client = &business.client();
        m_source = static_cast<int>(theirs[0].source);
        memcpy(m_timeHeader, theirs[0].payload.data(), kOsdOverlayHeaderSize);
        memcpy(m_speedHeader, theirs[1].payload.data(), kOsdOverlayHeaderSize);
        nvx::ClearSentMessages();
        Build();
        const std::vector<nvx::BusMessage> ours = SentOverlays();
        nvx::ClearSentMessages();
        // The time may have moved on a second in between; its length and header cannot.
        return ours.size() == 2 && ours[1].payload == theirs[1].payload &&
               ours[0].payload.size() == theirs[0].payload.size() &&
               memcmp(ours[0].payload.data(), theirs[0].payload.data(), kOsdOverlayHeaderSize) == 0;
    }

    void Build() {
        tagDateTime date;
        JQ_SDK_DateTime_GetLocalBrokendownTime(&date);
        unsigned char record[kOsdOverlayHeaderSize + 128];
        char* text = reinterpret_cast<char*>(record + kOsdOverlayHeaderSize);

        memcpy(record, m_timeHeader, kOsdOverlayHeaderSize);
        int n = snprintf(text, 128, "20%02d-%02d-%02d %02d:%02d:%02d", date.ucYear, date.ucMonth, date.ucDay,
                         date.ucHour, date.ucMinute, date.ucSecond);
        Send(record, n);

        memcpy(record, m_speedHeader, kOsdOverlayHeaderSize);
        n = snprintf(text, 128, "%d%s %s", static_cast<int>(kSpeed), "KM/H", "(L)");
        Send(record, n);
    }

private:
    void Send(unsigned char* record, int textLength) {
        record[28] = static_cast<unsigned char>(textLength + 1);
        m_client->MSGSendMessage(0, kOsdEventOverlay, 0, reinterpret_cast<const char*>(record),
                                 static_cast<int>(kOsdOverlayHeaderSize) + textLength + 1, m_source);
    }

    CMsgClientManage* m_client = nullptr;
    int m_source = 0;
    unsigned char m_timeHeader[kOsdOverlayHeaderSize] = {0};
    unsigned char m_speedHeader[kOsdOverlayHeaderSize] = {0};
};

}  // namespace osdbench

#endif
