// The OSD business the OSD fuzz targets feed: one manager, one bus client and one business for
// the whole run, made on first use and never released (the run ends with the process). Every
// input starts from the state the constructor leaves, copied from a twin that is never fed, so
// that a crash found after a million inputs replays from its one input.
#ifndef TRUCK_FUZZ_OSDFUZZBUSINESS_H
#define TRUCK_FUZZ_OSDFUZZBUSINESS_H

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <memory>
#include <vector>

#include <json/json.h>

#include "CommonDefine.h"
#include "NvxControl.h"
#include "TruckOsdService.h"
#include "TruckServiceManage.h"

namespace osdfuzz {

struct Pair {
    CTruckOsdService* fed;
    CTruckOsdService* pristine;
};

inline Pair& Businesses() {
    static Pair* pair = [] {
        static tagGlobalConfig config;
        memset(&config, 0, sizeof(config));
        // IP channels as well as analog ones, so that the masks of the Seven line differ.
        config.usVideoInNum = 4;
        config.usVideoIpNum = 2;
        // Kept for the whole run, shared as the service shares it: the platform's callbacks
        // reach a business only while its manager is alive.
        static std::shared_ptr<CTruckServiceManage>* owner =
            new std::shared_ptr<CTruckServiceManage>(std::make_shared<CTruckServiceManage>(&config));
        CTruckServiceManage* manage = owner->get();
        // A client of its own makes the business a shared-thread one: its handlers run here.
        CMsgClientManage* client = new CMsgClientManage("osdfuzz", kTruckClientDepth, nullptr);
        static char name[] = "osd";
        Json::Value param(Json::objectValue);
        return new Pair{new CTruckOsdService(manage, client, 7, name, 0, param),
                        new CTruckOsdService(manage, client, 7, name, 0, param)};
    }();
    return *pair;
}

// Every field a handler may write; the business as a whole cannot be copied.
inline void CopyFields(const CTruckOsdService& from, CTruckOsdService& to) {
    to.m_strSevenTxt = from.m_strSevenTxt;
    to.m_OSDX_Seven = from.m_OSDX_Seven;
    to.m_OSDY_Seven = from.m_OSDY_Seven;
    to.m_OSD_EN = from.m_OSD_EN;
    to.m_uiSevenChnMask = from.m_uiSevenChnMask;
    to.m_OSDX_Time = from.m_OSDX_Time;
    to.m_OSDY_Time = from.m_OSDY_Time;
    to.m_ucDateFormat = from.m_ucDateFormat;
    to.m_ucTimeFormat = from.m_ucTimeFormat;
    to.m_sTimeZone = from.m_sTimeZone;
    to.m_sTimeZoneEx = from.m_sTimeZoneEx;
    to.m_iTimeZoneHour = from.m_iTimeZoneHour;
    to.m_iTimeZoneMin = from.m_iTimeZoneMin;
    to.m_videoInNum = from.m_videoInNum;
    to.m_videoIpNum = from.m_videoIpNum;
    to.m_customerType = from.m_customerType;
    to.m_productType = from.m_productType;
    to.m_timeZoneParam = from.m_timeZoneParam;
    to.m_SystemDSTEnable = from.m_SystemDSTEnable;
    to.m_ucSpeedUnit = from.m_ucSpeedUnit;
    to.m_uiSpeed = from.m_uiSpeed;
    to.m_OSDX_Speed = from.m_OSDX_Speed;
    to.m_OSDY_Speed = from.m_OSDY_Speed;
    to.m_IOturnState.store(from.m_IOturnState.load());
    to.m_OBDturnState.store(from.m_OBDturnState.load());
    to.m_ucFontSize = from.m_ucFontSize;
    to.m_uiParamPending = from.m_uiParamPending;
    to.m_ucWaterEn = from.m_ucWaterEn;
    to.m_enableUtc = from.m_enableUtc;
    to.m_iLastDstState = from.m_iLastDstState;
    to.m_ucLastDstOffset = from.m_ucLastDstOffset;
}

// The business as constructed, with the record of sent messages emptied: the stand-in keeps
// every message, and only the ones this input caused are checked.
inline CTruckOsdService& Fresh() {
    Pair& pair = Businesses();
    CopyFields(*pair.pristine, *pair.fed);
    nvx::ClearSentMessages();
    return *pair.fed;
}

// The input in a heap block of exactly its size (also for an empty input), so that a read one
// byte past the payload lands in ASan's redzone.
class Payload {
public:
    Payload(const uint8_t* data, size_t size)
        : m_size(size < static_cast<size_t>(INT_MAX) ? size : static_cast<size_t>(INT_MAX)),
          m_bytes(new char[m_size]) {
        if (m_size != 0) {
            memcpy(m_bytes.get(), data, m_size);
        }
    }
    const char* data() const { return m_bytes.get(); }
    int length() const { return static_cast<int>(m_size); }
    const unsigned char* bytes() const { return reinterpret_cast<const unsigned char*>(m_bytes.get()); }

private:
    size_t m_size;
    std::unique_ptr<char[]> m_bytes;
};

inline std::vector<nvx::BusMessage> SentOf(int event) {
    std::vector<nvx::BusMessage> out;
    for (nvx::BusMessage& message : nvx::SentMessages()) {
        if (message.event == event) {
            out.push_back(std::move(message));
        }
    }
    return out;
}

// Every overlay message sent agrees with itself: a cancel is the header alone with text size
// 0; any other carries exactly text size bytes of text, the last of them its terminator and
// no other zero before it. The media side copies by the size byte.
inline void CheckOverlays() {
    for (const nvx::BusMessage& message : SentOf(kOsdEventOverlay)) {
        const std::vector<uint8_t>& p = message.payload;
        if (p.size() < kOsdOverlayHeaderSize || TruckGetLE32(p.data()) != kOsdOverlayCommand) {
            __builtin_trap();
        }
        const size_t textSize = p[28];
        if (p.size() != kOsdOverlayHeaderSize + textSize) {
            __builtin_trap();
        }
        if (textSize != 0 &&
            (p.back() != 0 || memchr(p.data() + kOsdOverlayHeaderSize, 0, textSize - 1) != nullptr)) {
            __builtin_trap();
        }
    }
}

}  // namespace osdfuzz

#endif
