// Time-zone parameters, the business's own daylight-saving rule and the date/time line.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "AppLibCommon.h"
#include "CommonDefine.h"
#include "TruckOsdService.h"

namespace {

// Calendar seconds are 32-bit on the device: sums wrap there, and are made to wrap the same
// way on a host whose long is wider, so that every comparison gives the device's answer.
long Seconds32(long long value) {
    return static_cast<long>(static_cast<int32_t>(static_cast<uint32_t>(value)));
}

// The decimal value of a time-zone text, cut to 16 bits; leading digits only, like atoi,
// but without its undefined overflow.
int16_t ZoneMinutes(const std::string& text) {
    long long value = strtoll(text.c_str(), nullptr, 10);
    // Saturate as the device's 32-bit conversion does, then cut.
    value = value > INT32_MAX ? INT32_MAX : (value < INT32_MIN ? INT32_MIN : value);
    return static_cast<int16_t>(static_cast<uint16_t>(value));
}

template <class T>
void ReadMember(const Json::Value& object, const char* key, T& field) {
    field = 0;
    if (JsonUtils::IsMember(object, key)) {
        GetJsonIntegral<T>(object[key], field, true, 0);
    }
}

}  // namespace

void CTruckOsdService::TimeParamParse(const Json::Value& timep) {
    if (timep.empty()) {
        return;
    }
    memset(&m_timeZoneParam, 0, sizeof(m_timeZoneParam));
    m_timeZoneParam.ucValid = 1;
    if (JsonUtils::IsMember(timep, "TIMEZ")) {
        GetJsonCString(timep["TIMEZ"], m_timeZoneParam.szTimeZone, sizeof(m_timeZoneParam.szTimeZone));
    }
    if (JsonUtils::IsMember(timep, "TIMEZEX")) {
        GetJsonCString(timep["TIMEZEX"], m_timeZoneParam.szTimeZoneEx, sizeof(m_timeZoneParam.szTimeZoneEx));
    }

    const Json::Value null;
    const Json::Value& dst = JsonUtils::IsMember(timep, "DST") ? timep["DST"] : null;
    ReadMember(dst, "SW", m_SystemDSTEnable);
    TRUCK_LOG(1, "dst sw = %d\n", static_cast<int>(m_SystemDSTEnable));

    const Json::Value& ldst = JsonUtils::IsMember(timep, "LDST") ? timep["LDST"] : null;
    TimeZoneParam& p = m_timeZoneParam;
    ReadMember(ldst, "SW", p.dstEnable);
    TRUCK_LOG(1, "m_timeZoneParam.dstEnable = %d , m_SystemDSTEnable = %d\n", static_cast<int>(p.dstEnable),
              static_cast<int>(m_SystemDSTEnable));
    ReadMember(ldst, "DSTM", p.dstMode);
    ReadMember(ldst, "DSTS", p.dstShift);
    ReadMember(ldst, "SMON", p.startMon);
    ReadMember(ldst, "SWEEK", p.startWeek);
    ReadMember(ldst, "SWIND", p.startWeekDay);
    ReadMember(ldst, "SH", p.startHour);
    ReadMember(ldst, "SM", p.startMin);
    ReadMember(ldst, "SS", p.startSec);
    ReadMember(ldst, "EMON", p.endMon);
    ReadMember(ldst, "EWEEK", p.endWeek);
    ReadMember(ldst, "EWIND", p.endWeekDay);
    ReadMember(ldst, "EH", p.endHour);
    ReadMember(ldst, "EM", p.endMin);
    ReadMember(ldst, "ES", p.endSec);
    ReadMember(ldst, "STARTTIME", p.startTime);
    ReadMember(ldst, "ENDTIME", p.endTime);

    if (JsonUtils::IsStringMember(timep, "TIMEZ")) {
        m_sTimeZone = ZoneMinutes(timep["TIMEZ"].asString());
    }
    if (JsonUtils::IsStringMember(timep, "TIMEZEX")) {
        m_sTimeZoneEx = ZoneMinutes(timep["TIMEZEX"].asString());
    }
    if (JsonUtils::IsMember(timep, "DATEM")) {
        GetJsonIntegral<uint8_t>(timep["DATEM"], m_ucDateFormat, true, 0);
    }
    if (JsonUtils::IsMember(timep, "TIMEM")) {
        GetJsonIntegral<uint8_t>(timep["TIMEM"], m_ucTimeFormat, true, 0);
    }

    uint8_t enableUtc = m_sTimeZone == 0 ? 1 : 0;
    TRUCK_LOG(1, "szTimeZone = %d, enableUtc: 0 -> %d\n", static_cast<int>(m_sTimeZone),
              static_cast<int>(enableUtc));
    if (JsonUtils::IsMember(timep, "ENU")) {
        uint8_t enu = 0;
        if (GetJsonIntegral<uint8_t>(timep["ENU"], enu, true, 0) >= 0) {
            TRUCK_LOG(1, "get enu param, enableUtc: %d -> %d\n", static_cast<int>(enableUtc),
                      static_cast<int>(enu));
            enableUtc = enu;
        }
    }
    TRUCK_LOG(1, "change m_enableUtc : %d -> %d\n", static_cast<int>(m_enableUtc),
              static_cast<int>(enableUtc));
    m_enableUtc = enableUtc;

    // Every customer's time line shows the active offset, card readers' too: in UTC mode their
    // time line would otherwise show the bare device clock.
    const int offset = m_enableUtc == 1 ? m_sTimeZoneEx : m_sTimeZone;
    m_iTimeZoneHour = static_cast<int16_t>(offset / 60);
    m_iTimeZoneMin = static_cast<int16_t>(offset % 60);
    if (IsCardReader(m_customerType)) {
        return;  // their Seven line carries card swipes, not the zone's label
    }
    if (m_enableUtc == 1) {
        m_uiSevenChnMask = static_cast<uint32_t>(GetVideoChannalMask(m_videoInNum));
        OSDDataDeleteIPCSeven("");
    } else {
        m_uiSevenChnMask = static_cast<uint32_t>(GetVideoChannalMask(m_videoInNum + m_videoIpNum));
    }

    // The label holds 15 characters; an offset of 16-bit minutes never needs more than 10,
    // but the formatter is given room for any int and the result is cut to 15.
    char label[32] = {0};
    if (m_iTimeZoneHour < 0) {
        snprintf(label, sizeof(label), "GMT-%02d:%02d", -m_iTimeZoneHour, abs(m_iTimeZoneMin));
    } else if (m_iTimeZoneHour > 0) {
        snprintf(label, sizeof(label), "GMT+%02d:%02d", m_iTimeZoneHour, m_iTimeZoneMin);
    } else {
        snprintf(label, sizeof(label), "GMT+00:00");
    }
    label[15] = '\0';
    m_strSevenTxt = label;
    if (m_OSD_EN != 0) {
        OSDDataSendSeven(label);
    } else {
        OSDDataSendCancelSeven();
    }
}

int CTruckOsdService::GetDstLocalUtcTime(const tagDateTime& date, long& start, long& end) {
    const TimeZoneParam& p = m_timeZoneParam;
    if (p.dstEnable == 0) {
        TRUCK_LOG(1, "Dst isn't enable! \n");
        return -1;
    }
    if (p.dstMode != 1 && p.dstMode != 2) {
        TRUCK_LOG(1, "The dst mode:%d is invalid! \n", static_cast<int>(p.dstMode));
        return -1;
    }
    const long long tz = 3600LL * m_iTimeZoneHour + 60LL * m_iTimeZoneMin;
    const long long shift = 3600LL * p.dstShift;
    if (p.dstMode == 2) {
        start = Seconds32(tz + p.startTime);
        end = Seconds32(tz + p.endTime - shift);
        return 0;
    }

    // The start is given in standard time, the end in daylight time.
    struct RulePoint {
        uint8_t mon, week, weekDay, hour, min, sec;
        long* out;
    };
    const RulePoint points[2] = {
        {p.startMon, p.startWeek, p.startWeekDay, p.startHour, p.startMin, p.startSec, &start},
        {p.endMon, p.endWeek, p.endWeekDay, p.endHour, p.endMin, p.endSec, &end},
    };
    for (int i = 0; i < 2; ++i) {
        const RulePoint& point = points[i];
        const uint8_t month = static_cast<uint8_t>(point.mon + 1);
        const uint8_t weekSpec = static_cast<uint8_t>((point.week << 4) | (point.weekDay & 0x0F));
        uint8_t day{};
        if (JQ_SDK_DateTime_GetDayByWeek(date.ucYear, month, weekSpec, &day) != 0) {
            TRUCK_LOG(1, "JQ_SDK_DateTime_GetDayByWeek FAILED(%d)(%d)(%02x)\n", static_cast<int>(date.ucYear),
                      static_cast<int>(month), static_cast<unsigned int>(weekSpec));
            return -1;
        }
        tagDateTime when{};
        when.ucYear = date.ucYear;
        when.ucMonth = month;
        when.ucDay = day;
        when.ucHour = point.hour;
        when.ucMinute = point.min;
        when.ucSecond = point.sec;
        if (JQ_SDK_DateTime_BrokenDownTimeToCalendarTime(&when, point.out) != 0) {
            TRUCK_LOG(1, "JQ_SDK_DateTime_BrokenDownTimeToCalendarTime FAILED\n");
            return -1;
        }
        if (i == 0) {
            TRUCK_LOG(4, "GetDstLocalUtcTime start:20%02d-%02d-%02d\n", static_cast<int>(when.ucYear),
                      static_cast<int>(when.ucMonth), static_cast<int>(when.ucDay));
        }
    }
    end = Seconds32(static_cast<long long>(end) - shift);
    return 0;
}

bool CTruckOsdService::IsDateTimeInDst(const tagDateTime& date) {
    long start = 0;
    long end = 0;
    if (GetDstLocalUtcTime(date, start, end) != 0) {
        TRUCK_LOG(1, "GetDstLocalUtcTime FAILED\n");
        return false;
    }
    long now = 0;
    if (JQ_SDK_DateTime_BrokenDownTimeToCalendarTime(&date, &now) != 0) {
        TRUCK_LOG(1, "JQ_SDK_DateTime_BrokenDownTimeToCalendarTime FAILED\n");
        return false;
    }
    if (end >= start) {
        return start <= now && now < end;
    }
    return now >= start || now < end;  // the period wraps over the new year
}

bool CTruckOsdService::CheckDstCriticalCondition(const tagDateTime& date) {
    if (m_timeZoneParam.dstEnable == 0 || m_SystemDSTEnable != 0) {
        return true;
    }
    TRUCK_LOG(4, "before time: %02d-%02d-%02d,%02d:%02d:%02d\n", static_cast<int>(date.ucYear),
              static_cast<int>(date.ucMonth), static_cast<int>(date.ucDay), static_cast<int>(date.ucHour),
              static_cast<int>(date.ucMinute), static_cast<int>(date.ucSecond));
    return !IsDateTimeInDst(date);
}

int CTruckOsdService::FormatTimeTxt(const tagDateTime& date, char* out, unsigned int size) {
    if (out == nullptr) {
        return 0;
    }
    const int year = date.ucYear;
    const int month = date.ucMonth;
    const int day = date.ucDay;
    const int hour = date.ucHour;
    const int minute = date.ucMinute;
    const int second = date.ucSecond;

    char datePart[40];
    if (m_ucDateFormat == 0) {
        snprintf(datePart, sizeof(datePart), "%02d/%02d/20%02d", month, day, year);
    } else if (m_ucDateFormat == 2) {
        snprintf(datePart, sizeof(datePart), "%02d/%02d/20%02d", day, month, year);
    } else {
        snprintf(datePart, sizeof(datePart), "20%02d-%02d-%02d", year, month, day);
    }

    char timePart[40];
    if (m_ucTimeFormat == 1) {
        if (hour >= 13) {
            snprintf(timePart, sizeof(timePart), "%02d:%02d:%02d PM", hour - 12, minute, second);
        } else if (hour == 12) {
            snprintf(timePart, sizeof(timePart), "%02d:%02d:%02d PM", 12, minute, second);
        } else if (hour == 0) {
            snprintf(timePart, sizeof(timePart), "12:%02d:%02d AM", minute, second);
        } else {
            snprintf(timePart, sizeof(timePart), "%02d:%02d:%02d AM", hour, minute, second);
        }
    } else {
        snprintf(timePart, sizeof(timePart), "%02d:%02d:%02d", hour, minute, second);
    }

    if (size > 0) {
        snprintf(out, size, "%s %s", datePart, timePart);
    }
    TRUCK_LOG(3, "date_time_str = %s, txt = %s\n", datePart, size > 0 ? out : "");
    return 0;
}

void CTruckOsdService::OSDDataSendTime() {
    char text[128] = {};
    tagDateTime date{};
    int dstState = 1;
    if (m_enableUtc != 1) {
        JQ_SDK_DateTime_GetLocalBrokendownTime(&date);
    } else {
        long long clock{};
        JQ_SDK_DateTime_GetLocalSeconds(&clock);
        const long long local = static_cast<long long>(static_cast<uint32_t>(clock)) +
                                3600LL * m_iTimeZoneHour + 60LL * m_iTimeZoneMin;
        long seconds = Seconds32(local);
        // A clock outside the platform's calendar (an RTC reset before 2000, say) shows what
        // the conversion left, and no daylight-saving rule is tried on it.
        if (JQ_SDK_DateTime_CalendarTimeToBrokenDownTime(&seconds, &date) == 0) {
            dstState = CheckDstCriticalCondition(date) ? 1 : 0;
        }
        if (dstState == 0) {
            seconds = Seconds32(static_cast<long long>(seconds) + 3600LL * m_timeZoneParam.dstShift);
            tagDateTime shifted{};
            if (JQ_SDK_DateTime_CalendarTimeToBrokenDownTime(&seconds, &shifted) == 0) {
                date = shifted;  // past the calendar's end the standard time is shown
            }
        }
    }
    FormatTimeTxt(date, text, sizeof(text));

    if (dstState != m_iLastDstState || m_timeZoneParam.dstShift != m_ucLastDstOffset) {
        TRUCK_LOG(1, "ldst state %d->%d, ldst offset %d->%d\n", m_iLastDstState, dstState,
                  static_cast<int>(m_ucLastDstOffset), static_cast<int>(m_timeZoneParam.dstShift));
        m_iLastDstState = dstState;
        m_ucLastDstOffset = m_timeZoneParam.dstShift;
        unsigned char payload[8] = {0};
        TruckPutLE32(payload, static_cast<uint32_t>(m_iLastDstState));
        payload[4] = m_ucLastDstOffset;
        SendBus(kOsdEventDstState, payload, sizeof(payload));
    }

    SendOverlayText(kOsdItemTime, static_cast<uint32_t>(GetVideoChannalMask(m_videoInNum + m_videoIpNum)),
                    m_OSDX_Time, m_OSDY_Time, text, "malloc osd data error, timestr = %s\n");
}
