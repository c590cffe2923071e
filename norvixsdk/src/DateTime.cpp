// Date and time on the device's settable wall clock, and the device's calendar beneath them
// (also the host's, through the control interface).
//
// The calendar arithmetic is done here on 64-bit integers (days from and to a civil date, as
// in the proleptic Gregorian calendar), not through the C library: the device's time_t is 32
// bits wide and ends in 2038, well before the records do, so no conversion may pass through
// it. The same code then runs unchanged on the device and on a 64-bit host.
#include "JQ_SDK_DateTime.h"

#include <stdint.h>
#include <string.h>

#include "Device.h"

namespace {

constexpr int64_t kDaySeconds = 86400;

bool IsLeap(int64_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int64_t FloorDiv(int64_t a, int64_t b) {
    return a / b - (a % b < 0 ? 1 : 0);
}

}  // namespace

namespace nvx {

int DaysInMonth(int64_t year, int month) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeap(year) ? 29 : kDays[month - 1];
}

// Years are counted from March, so that the leap day ends a year; 400 years hold exactly
// 146097 days.
int64_t DaysFromCivil(int64_t year, int month, int day) {
    year -= month <= 2 ? 1 : 0;
    const int64_t era = FloorDiv(year, 400);
    const int64_t yearOfEra = year - era * 400;
    const int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

CivilTime CivilFromSeconds(int64_t seconds) {
    const int64_t days = FloorDiv(seconds, kDaySeconds);
    const int64_t inDay = seconds - days * kDaySeconds;
    const int64_t shifted = days + 719468;  // from 0000-03-01
    const int64_t era = FloorDiv(shifted, 146097);
    const int64_t dayOfEra = shifted - era * 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    CivilTime c;
    c.month = static_cast<int>(monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9);
    c.day = static_cast<int>(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1);
    c.year = yearOfEra + era * 400 + (c.month <= 2 ? 1 : 0);
    c.hour = static_cast<int>(inDay / 3600);
    c.minute = static_cast<int>(inDay / 60 % 60);
    c.second = static_cast<int>(inDay % 60);
    c.weekday = static_cast<int>(days + 4 - FloorDiv(days + 4, 7) * 7);  // 1970-01-01 was a Thursday
    return c;
}

}  // namespace nvx

namespace {

using nvx::CivilFromSeconds;
using nvx::CivilTime;
using nvx::DaysFromCivil;
using nvx::DaysInMonth;

constexpr int kFirstYear = 2000;
constexpr int kLastYear = 2099;
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

bool InRecordRange(int64_t year) {
    return year >= kFirstYear && year <= kLastYear;
}

// The record of a civil time of 2000..2099; every byte is written.
void FillRecord(const CivilTime& c, tagDateTime* dateTime) {
    memset(dateTime, 0, sizeof(*dateTime));
    dateTime->ucYear = static_cast<uint8_t>(c.year - kFirstYear);
    dateTime->ucMonth = static_cast<uint8_t>(c.month);
    dateTime->ucDay = static_cast<uint8_t>(c.day);
    dateTime->ucHour = static_cast<uint8_t>(c.hour);
    dateTime->ucMinute = static_cast<uint8_t>(c.minute);
    dateTime->ucSecond = static_cast<uint8_t>(c.second);
    dateTime->ucWeek = static_cast<uint8_t>(c.weekday);
}

}  // namespace

int JQ_SDK_DateTime_GetLocalBrokendownTime(tagDateTime* dateTime) {
    if (dateTime == nullptr) {
        return -1;
    }
    // The device clock keeps local time on a zone-free scale. A clock set outside the
    // records' century shows its month and day in year 0.
    CivilTime now = CivilFromSeconds(nvx::WallClock());
    if (!InRecordRange(now.year)) {
        now.year = kFirstYear;
    }
    FillRecord(now, dateTime);
    return 0;
}

int JQ_SDK_DateTime_GetLocalSeconds(long long* seconds) {
    if (seconds == nullptr) {
        return -1;
    }
    // Whole 64 bits written, but what they hold is what the device's 32-bit clock reads.
    *seconds = AsDeviceSeconds(nvx::WallClock());
    return 0;
}

int JQ_SDK_DateTime_CalendarTimeToBrokenDownTime(const long* seconds, tagDateTime* dateTime) {
    if (seconds == nullptr || dateTime == nullptr) {
        return -1;
    }
    const CivilTime civil = CivilFromSeconds(ReadSeconds(*seconds));
    if (!InRecordRange(civil.year)) {
        return -1;
    }
    FillRecord(civil, dateTime);
    return 0;
}

int JQ_SDK_DateTime_BrokenDownTimeToCalendarTime(const tagDateTime* dateTime, long* seconds) {
    if (dateTime == nullptr || seconds == nullptr) {
        return -1;
    }
    const int year = kFirstYear + dateTime->ucYear;
    const int month = dateTime->ucMonth;
    // Checked field by field: the arithmetic below would quietly roll a 31st of April over
    // into May.
    if (year > kLastYear || month < 1 || month > 12 || dateTime->ucDay < 1 ||
        dateTime->ucDay > DaysInMonth(year, month) || dateTime->ucHour > 23 || dateTime->ucMinute > 59 ||
        dateTime->ucSecond > 59) {
        return -1;
    }
    const int64_t calendar = DaysFromCivil(year, month, dateTime->ucDay) * kDaySeconds +
                             dateTime->ucHour * 3600 + dateTime->ucMinute * 60 + dateTime->ucSecond;
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
    const int firstWeekday = CivilFromSeconds(DaysFromCivil(fullYear, month, 1) * kDaySeconds).weekday;
    const int first = 1 + (weekday - firstWeekday + 7) % 7;  // 1..7
    // Week 4 ends by the 28th, inside every month; week 5 is however many whole weeks fit.
    const int weeks = week < 5 ? week - 1 : (DaysInMonth(fullYear, month) - first) / 7;
    *day = static_cast<unsigned char>(first + 7 * weeks);
    return 0;
}
