// Calendar fields of 32-bit UTC seconds, in UTC or local time, and back.
#pragma once

#include <cstdint>
#include <string>

struct DateTime {
    int year;     // e.g. 2026
    int month;    // 1 .. 12
    int day;      // 1 .. 31
    int hour;     // 0 .. 23
    int minute;   // 0 .. 59
    int second;   // 0 .. 60
    int weekday;  // 0 = Sunday
};

DateTime UtcDateTime(uint32_t seconds);
DateTime LocalDateTime(uint32_t seconds);
// The local time given by the fields (weekday ignored; daylight saving as
// the zone has it), as UTC seconds; -1 when it cannot be represented.
int64_t LocalSeconds(const DateTime &local);
// "YYYY-MM-DD HH:MM:SS" in local time, and in UTC.
std::string LocalTimeText(uint32_t seconds);
std::string UtcTimeText(uint32_t seconds);

// "YYYY-MM-DD" as a real calendar date. False for anything else.
bool ParseDate(const char *text, DateTime *date);
// Seconds since the epoch (digits only), or a local "YYYY-MM-DDTHH:MM:SS"
// that exists on the local clock. False for anything else.
bool ParseTimeArgument(const char *text, uint32_t *seconds);
