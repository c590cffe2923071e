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

// The device's local date and time. 0, or -1 for a null record.
int JQ_SDK_DateTime_GetLocalBrokendownTime(tagDateTime* dateTime);

#endif
