// Date and time on the device's settable wall clock.
//
// Every conversion goes through the C library's UTC calls (timegm, gmtime_r), so the stand-in
// and the host agree on what a calendar second is. The device's time_t is 32 bits wide and
// ends in 2038, well before the records do: moments past it are folded back by whole
// 28-year cycles, which within 1901..2099 keep both the leap years and the weekdays, so the
// same code runs unchanged on the device and on a 64-bit host.
#include "JQ_SDK_DateTime.h"

#include <stdint.h>
#include <string.h>
#include <time.h>

#include "Device.h"

namespace {

constexpr int kFirstYear = 2000;
constexpr int kLastYear = 2099;

// 28 years from 1970 hold 7 leap days: 10227 days, exactly 1461 weeks.
constexpr int kCycleYears = 28;
constexpr int64_t kCycleSeconds = int64_t{10227} * 86400;
// The last year a 32-bit time_t can hold whole.
constexpr int kLastWholeYear = 2037;
constexpr int64_t kInt32Limit = int64_t{1} << 31;

// The device's `long`: its low 32 bits, taken unsigned.
int64_t ReadSeconds(long seconds) {
    return static_cast<int64_t>(static_cast<uint32_t>(seconds));
}

// Seconds on the device's scale: the low 32 bits as a signed number.
int64_t AsDeviceSeconds(int64_t seconds) {
    const int64_t low = static_cast<uint32_t>(seconds);
    return low >= kInt32Limit ? low - 2 * kInt32Limit : low;
}

bool IsLeap(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int DaysInMonth(int year, int month) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeap(year) ? 29 : kDays[month - 1];
}

// A valid date and time of 2000..2099 to seconds since 1970; its weekday to *weekday.
bool ToCalendar(int year, int month, int day, int hour, int minute, int second, int64_t* out,
                int* weekday = nullptr) {
    int64_t folded = 0;
    while (year > kLastWholeYear) {
        year -= kCycleYears;
        folded += kCycleSeconds;
    }
    struct tm parts;
    memset(&parts, 0, sizeof(parts));
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    const time_t seconds = timegm(&parts);
    if (seconds == static_cast<time_t>(-1)) {  // never a moment of 1970..2037
        return false;
    }
    *out = static_cast<int64_t>(seconds) + folded;
    if (weekday != nullptr) {
        *weekday = parts.tm_wday;
    }
    return true;
}

// Seconds since 1970 (not negative) to their parts, years counted from 1900.
bool ToBrokenDown(int64_t seconds, struct tm* parts) {
    int years = 0;
    while (seconds >= kInt32Limit) {
        seconds -= kCycleSeconds;
        years += kCycleYears;
    }
    const time_t whole = static_cast<time_t>(seconds);
    if (gmtime_r(&whole, parts) == nullptr) {
        return false;
    }
    parts->tm_year += years;
    return true;
}

// The record of a broken-down UTC time; every byte is written.
void FillRecord(const struct tm& parts, int yearOfCentury, tagDateTime* dateTime) {
    memset(dateTime, 0, sizeof(*dateTime));
    dateTime->ucYear = static_cast<uint8_t>(yearOfCentury);
    dateTime->ucMonth = static_cast<uint8_t>(parts.tm_mon + 1);
    dateTime->ucDay = static_cast<uint8_t>(parts.tm_mday);
    dateTime->ucHour = static_cast<uint8_t>(parts.tm_hour);
    dateTime->ucMinute = static_cast<uint8_t>(parts.tm_min);
    dateTime->ucSecond = static_cast<uint8_t>(parts.tm_sec);
    dateTime->ucWeek = static_cast<uint8_t>(parts.tm_wday);
}

}  // namespace

int JQ_SDK_DateTime_GetLocalBrokendownTime(tagDateTime* dateTime) {
    if (dateTime == nullptr) {
        return -1;
    }
    // The device clock keeps local time on a zone-free scale.
    const time_t now = nvx::WallClock();
    struct tm parts;
    gmtime_r(&now, &parts);
    const int year = parts.tm_year + 1900;
    FillRecord(parts, year >= kFirstYear && year <= kLastYear ? year - kFirstYear : 0, dateTime);
    return 0;
}

int JQ_SDK_DateTime_GetLocalSeconds(long long* seconds) {
    if (seconds == nullptr) {
        return -1;
    }
    // Whole 64 bits written, but what they hold is what the device's 32-bit clock reads.
    *seconds = AsDeviceSeconds(static_cast<int64_t>(nvx::WallClock()));
    return 0;
}

int JQ_SDK_DateTime_CalendarTimeToBrokenDownTime(const long* seconds, tagDateTime* dateTime) {
    if (seconds == nullptr || dateTime == nullptr) {
        return -1;
    }
    struct tm parts;
    if (!ToBrokenDown(ReadSeconds(*seconds), &parts)) {
        return -1;
    }
    const int year = parts.tm_year + 1900;
    if (year < kFirstYear || year > kLastYear) {
        return -1;
    }
    FillRecord(parts, year - kFirstYear, dateTime);
    return 0;
}

int JQ_SDK_DateTime_BrokenDownTimeToCalendarTime(const tagDateTime* dateTime, long* seconds) {
    if (dateTime == nullptr || seconds == nullptr) {
        return -1;
    }
    const int year = kFirstYear + dateTime->ucYear;
    const int month = dateTime->ucMonth;
    // Checked here rather than left to timegm, which would quietly roll a 31st of April over
    // into May.
    if (year > kLastYear || month < 1 || month > 12 || dateTime->ucDay < 1 ||
        dateTime->ucDay > DaysInMonth(year, month) || dateTime->ucHour > 23 || dateTime->ucMinute > 59 ||
        dateTime->ucSecond > 59) {
        return -1;
    }
    int64_t calendar = 0;
    if (!ToCalendar(year, month, dateTime->ucDay, dateTime->ucHour, dateTime->ucMinute, dateTime->ucSecond,
                    &calendar)) {
        return -1;
    }
    *seconds = static_cast<long>(AsDeviceSeconds(calendar));
    return 0;
}

int JQ_SDK_DateTime_GetDayByWeek(unsigned char year, unsigned char month, unsigned char weekSpec,
                                 unsigned char* day) {
    const int week = weekSpec >> 4;
    const int weekday = weekSpec & 0x0F;
    if (day == nullptr || year > kLastYear - kFirstYear || month < 1 || month > 12 || week < 1 || week > 5 ||
        weekday > 6) {
        return -1;
    }
    const int fullYear = kFirstYear + year;
    int64_t unused = 0;
    int firstWeekday = 0;
    if (!ToCalendar(fullYear, month, 1, 0, 0, 0, &unused, &firstWeekday)) {
        return -1;
    }
    const int first = 1 + (weekday - firstWeekday + 7) % 7;  // 1..7
    // Week 4 ends by the 28th, inside every month; week 5 is however many whole weeks fit.
    const int weeks = week < 5 ? week - 1 : (DaysInMonth(fullYear, month) - first) / 7;
    *day = static_cast<unsigned char>(first + 7 * weeks);
    return 0;
}
