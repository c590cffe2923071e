// Date and time services of the platform.
#ifndef NORVIX_JQ_SDK_DATETIME_H
#define NORVIX_JQ_SDK_DATETIME_H

#include <stddef.h>
#include <stdint.h>

// The platform's broken-down time, one byte a field.
typedef struct tagDateTime {
    uint8_t ucYear;   // year of the century: 0..99 stands for 2000..2099
    uint8_t ucMonth;  // 1..12
    uint8_t ucDay;    // 1..31
    uint8_t ucHour;
    uint8_t ucMinute;
    uint8_t ucSecond;
    uint8_t ucWeek;  // day of the week, 0 (Sunday) .. 6
    uint8_t ucReserved;
} tagDateTime;
static_assert(sizeof(tagDateTime) == 8, "broken-down time is 8 bytes");
static_assert(offsetof(tagDateTime, ucSecond) == 5, "second at 5");
static_assert(offsetof(tagDateTime, ucWeek) == 6, "weekday at 6");

// Calendar seconds are seconds since 1970-01-01 00:00:00 on one zone-free scale: the device
// clock keeps local time, and every operation below reads and writes that same scale, counted
// as the C library's UTC conversions count it (no leap seconds). The scale is 32 bits wide,
// as `long` is on the device: seconds handed in are read as their low 32 bits taken unsigned
// (so up to 2106), seconds handed out are those 32 bits as a signed number (so signed
// comparisons hold up to 2038). Broken-down records cover the years 2000 to 2099 only.

// The device's local date and time. 0, or -1 for a null record.
int JQ_SDK_DateTime_GetLocalBrokendownTime(tagDateTime* dateTime);

// The device clock as calendar seconds, written whole into *seconds. 0, or -1 for null.
int JQ_SDK_DateTime_GetLocalSeconds(long long* seconds);

// Calendar seconds to a record (weekday filled in). 0, or -1 for a null argument or a
// moment outside 2000..2099.
int JQ_SDK_DateTime_CalendarTimeToBrokenDownTime(const long* seconds, tagDateTime* dateTime);

// A record to calendar seconds; the weekday byte is not read. 0, or -1 for a null argument
// or a field out of range (month 1..12, day 1..days of that month, hour < 24, minute and
// second < 60).
int JQ_SDK_DateTime_BrokenDownTimeToCalendarTime(const tagDateTime* dateTime, long* seconds);

// The day of the month of a weekday of a week, for year 2000 + `year` and month 1..12.
// `weekSpec` = (week << 4) | weekday. Weeks 1 to 4 count from the start of the month (week 1
// is the first such weekday of the month); week 5 means the last such weekday, be it the 4th
// or the 5th. Weekday 0 is Sunday, 6 Saturday. 0 and *day, or -1 for a null day, a year over
// 99, a month outside 1..12, a week outside 1..5 or a weekday over 6.
int JQ_SDK_DateTime_GetDayByWeek(unsigned char year, unsigned char month, unsigned char weekSpec,
                                 unsigned char* day);

#endif
