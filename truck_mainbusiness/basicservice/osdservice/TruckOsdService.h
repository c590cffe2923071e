// The OSD business: keeps the overlay texts of recorded and previewed video up to date (date
// and time, speed with turn signals, and the Seven line: the time-zone label or a driver's
// card swipe) and sends them to the media side as overlay messages.
//
// One class, implemented by concern in the files of this folder:
//   TruckOsdService.cpp         object, hooks, event sources, parameter intake and dispatch
//   TruckOsdServiceTime.cpp     time-zone parameters, daylight saving, the date/time line
//   TruckOsdServiceEosd.cpp     overlay positions and the watermark layouts
//   TruckOsdServiceMessage.cpp  the overlay message, the Seven line and card swipes
//   TruckOsdServiceSpeed.cpp    speed and turn signals
//
// Threads: the business's own thread (or the main cycle's) runs the cycle, the parameter
// documents and the bus handlers, and owns every field except the two turn-signal bytes,
// which the platform's signal and CAN threads write.
#ifndef TRUCK_OSDSERVICE_TRUCKOSDSERVICE_H
#define TRUCK_OSDSERVICE_TRUCKOSDSERVICE_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "JQ_SDK_DateTime.h"
#include "TruckServiceBase.h"

// Bus events of the business.
const int kOsdEventSpeed = 0x118A;     // received: speed notification
const int kOsdEventSwipe = 0x4004;     // received: card swipe
const int kOsdEventOverlay = 0x1210;   // sent: overlay message
const int kOsdEventCardText = 0x1263;  // sent: card-swipe text record
const int kOsdEventIoTurn = 0x401E;    // sent: IO turn-signal state
const int kOsdEventDstState = 0x402F;  // sent: daylight-saving state of the time line

// Overlay message: a 36-byte header, then the text and its terminator.
const size_t kOsdOverlayHeaderSize = 36;
const uint32_t kOsdOverlayCommand = 0x1200;
const uint8_t kOsdItemTime = 0;
const uint8_t kOsdItemSpeed = 2;
const uint8_t kOsdItemSeven = 6;

// Card-swipe text record: 212 bytes, the text field holds 72 bytes without terminator.
const size_t kOsdCardRecordSize = 212;
const size_t kOsdCardTextMax = 72;

// Customer types whose Seven line carries card swipes instead of the time-zone label.
const unsigned int kOsdCustomerCardReader = 43;
const unsigned int kOsdCustomerCardReaderNoRecord = 44;
// Product type that shows no speed line.
const unsigned int kOsdProductNoSpeed = 113;

// The TIMEP time-zone and daylight-saving block, in parameter order.
struct TimeZoneParam {
    uint8_t ucValid;
    char szTimeZone[16];
    char szTimeZoneEx[16];
    uint8_t dstEnable;
    uint8_t dstMode;   // 1 week rule, 2 absolute times
    uint8_t dstShift;  // hours
    uint8_t startMon;  // 0 = January
    uint8_t startWeek;
    uint8_t startWeekDay;
    uint8_t startHour;
    uint8_t startMin;
    uint8_t startSec;
    uint8_t endMon;
    uint8_t endWeek;
    uint8_t endWeekDay;
    uint8_t endHour;
    uint8_t endMin;
    uint8_t endSec;
    uint32_t startTime;  // calendar seconds, absolute mode
    uint32_t endTime;
};

class CTruckOsdService : public CTruckServiceBase {
public:
    CTruckOsdService(CTruckServiceManage* manager, CMsgClientManage* client, unsigned int businessId,
                     char* name, unsigned char mode, Json::Value& config);
    ~CTruckOsdService() override;

    int business_init() override;
    int business_uninit() override;
    int business_cycle_running(unsigned long long nowMs) override;

    int RegisterMessage();
    int UnregisterMessage();
    int GetParam();
    int MonitorParam();

    // Parameter documents, queued by OSDParamCallback and run on the business's thread.
    void OSDEventHandle(std::vector<AsynCallbackParaNode_t>& nodes);
    void QueueParam(const AsynCallbackParaNode_t& node);
    void TimeParamParse(const Json::Value& timep);
    int HandleParamParseEOSD(const Json::Value& eosd);
    // Writes the watermark layout. It reads nothing of a business, so the wheel's timer calls
    // it without an object: a timer still pending when the business goes cannot reach freed
    // memory, and the layout the driver asked for is written all the same.
    static void SetWatermarkDefaultPosition();

    // Daylight saving by the business's own rule.
    int GetDstLocalUtcTime(const tagDateTime& date, long& start, long& end);
    bool IsDateTimeInDst(const tagDateTime& date);
    bool CheckDstCriticalCondition(const tagDateTime& date);

    // Date/time line.
    int FormatTimeTxt(const tagDateTime& date, char* out, unsigned int size);
    void OSDDataSendTime();

    // Speed and turn signals.
    void OnUpdateSpeedInfo(const char* data, int length);
    void OnUpdateJ1939DataInfo(const char* data, unsigned int length);
    static void MonitorIoUseInfo(const char* data, int length, void* user, void* reserved);
    void OnUpdateIoUseInfo(const char* data, int length);
    void OSDDataSendSpeed();

    // Seven line and card swipes.
    void OnSwipeInfoNotify(const char* data, int length);
    void OSDDataSendSeven(std::string text);
    void OSDDataSendCancelSeven();
    void OSDDataDeleteIPCSeven(std::string text);
    int GetVideoChannalMask(int channelCount);

    // The user pointer that the platform's monitors and the parameter watch are given: a
    // number unique in the process, never an address, so that a business created again at
    // the same address is not reached by the registrations of the one before.
    void* LiveToken() const { return reinterpret_cast<void*>(m_liveToken); }

    // Runs `call` on the business that `user` names, if it is still listed. The platform's
    // monitors and the parameter watch keep their user pointer after the business is gone (a
    // signal monitor is never withdrawn, a CAN withdrawal needs the SDK handle), so every
    // such callback asks first. The registry's lock is held only to look the business up; the
    // call itself holds a share of the business's manager, so the business outlives it, and
    // no lock is held while it calls out to the platform.
    template <class F>
    static void WithLive(void* user, F&& call) {
        const LiveCall live(user);
        if (live.business == nullptr) {
            return;
        }
        CTruckOsdService* business = live.business;
        TruckGuardThread("osd callback", [&call, business] { call(business); });
    }

private:
    struct LiveCall {
        explicit LiveCall(void* user);
        LiveCall(const LiveCall&) = delete;
        LiveCall& operator=(const LiveCall&) = delete;
        CTruckOsdService* business = nullptr;
        std::shared_ptr<CTruckServiceManage> manage;
    };

    static bool IsCardReader(unsigned int customerType) {
        return customerType == kOsdCustomerCardReader || customerType == kOsdCustomerCardReaderNoRecord;
    }
    // Builds and sends one overlay message with a text (every sender but the cancel).
    // `text` is NUL-terminated; taken as a plain pointer so that the cycle's texts, which live
    // in stack buffers, are not copied into a string on their way to the record.
    void SendOverlayText(uint8_t kind, uint32_t mask, uint16_t x, uint16_t y, const char* text,
                         const char* failureFormat);
    void FillOverlayHeader(unsigned char* record, uint8_t kind, uint32_t mask, uint16_t x, uint16_t y,
                           uint8_t textSize) const;
    void SendBus(int event, const unsigned char* data, size_t length);
    void ApplySwipe(const char* data, int length);
    // The turn state of a device-signal text (0 when it has none), and taking it in.
    static int IoTurnValue(const char* data, int length);
    void ApplyIoTurn(int value);
    void Unlist();

    uintptr_t m_liveToken;
    std::atomic<bool> m_bParamLost;  // set on the parameter thread, taken by the cycle

public:
    std::string m_strSevenTxt;
    uint16_t m_OSDX_Seven;
    uint16_t m_OSDY_Seven;
    uint16_t m_OSD_EN;
    uint32_t m_uiSevenChnMask;
    uint16_t m_OSDX_Time;
    uint16_t m_OSDY_Time;
    uint8_t m_ucDateFormat;
    uint8_t m_ucTimeFormat;
    int16_t m_sTimeZone;
    int16_t m_sTimeZoneEx;
    int32_t m_iTimeZoneHour;
    int32_t m_iTimeZoneMin;
    uint16_t m_videoInNum;
    uint16_t m_videoIpNum;
    uint32_t m_customerType;
    uint32_t m_productType;
    TimeZoneParam m_timeZoneParam;
    uint8_t m_SystemDSTEnable;
    uint8_t m_ucSpeedUnit;
    uint32_t m_uiSpeed;
    uint16_t m_OSDX_Speed;
    uint16_t m_OSDY_Speed;
    std::atomic<uint8_t> m_IOturnState;   // written by the signal thread
    std::atomic<uint8_t> m_OBDturnState;  // written by the CAN thread
    uint8_t m_ucFontSize;
    uint32_t m_uiParamPending;  // bit 0 TIMEP, bit 1 EOSD still to come
    uint8_t m_ucWaterEn;
    uint8_t m_enableUtc;
    int32_t m_iLastDstState;
    uint8_t m_ucLastDstOffset;
};

// The parameter callback of both requests: queues the document for OSDEventHandle.
void OSDParamCallback(const char* data, int length, void* user, void* context);
// The CAN-port callback: hands a J1939 record to OnUpdateJ1939DataInfo.
void CallbackCanTruckOsdServiceEvent(const char* data, int length, void* user, void* reserved);

#endif
