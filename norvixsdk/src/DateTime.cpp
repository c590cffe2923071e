// Date and time on the device's settable wall clock.
#include "JQ_SDK_DateTime.h"

#include <string.h>
#include <time.h>

#include "Device.h"

int JQ_SDK_DateTime_GetLocalBrokendownTime(tagDateTime* dateTime) {
    if (dateTime == nullptr) {
        return -1;
    }
    // The device clock keeps local time on a zone-free scale.
    const time_t now = nvx::WallClock();
    struct tm parts;
    gmtime_r(&now, &parts);
    memset(dateTime, 0, sizeof(*dateTime));
    const int year = parts.tm_year + 1900;
    dateTime->ucYear = static_cast<uint8_t>(year >= 2000 && year <= 2099 ? year - 2000 : 0);
    dateTime->ucMonth = static_cast<uint8_t>(parts.tm_mon + 1);
    dateTime->ucDay = static_cast<uint8_t>(parts.tm_mday);
    dateTime->ucHour = static_cast<uint8_t>(parts.tm_hour);
    dateTime->ucMinute = static_cast<uint8_t>(parts.tm_min);
    dateTime->ucSecond = static_cast<uint8_t>(parts.tm_sec);
    dateTime->ucWeek = static_cast<uint8_t>(parts.tm_wday);
    return 0;
}
