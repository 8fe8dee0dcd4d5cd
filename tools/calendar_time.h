// Calendar fields of 32-bit UTC seconds, in UTC or local time, and back.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct DateTime {
    int year;     // e.g. 2026
    int month;    // 1 .. 12
    int day;      // 1 .. 31
    int hour;     // 0 .. 23
    int minute;   // 0 .. 59
    int second;   // 0 .. 60
    int weekday;  // 0 = Sunday
};

// Local time is the wall clock of the zone in TZ, daylight saving included:
// on the day the clocks go forward an hour of the clock never shows and the
// day has 23 hours; on the day they go back an hour shows twice and the day
// has 25 hours. Card times are UTC and never change with the zone.

DateTime UtcDateTime(uint32_t seconds);
// The fields read as UTC (weekday ignored; out of range fields roll over,
// day 32 is the next month's first), as seconds since 1970; negative
// before 1970.
int64_t UtcSeconds(const DateTime &utc);
DateTime LocalDateTime(uint32_t seconds);
// The moment the local clock shows the fields (weekday ignored; fields out
// of range roll over, day 32 is the next month's first), as UTC seconds.
// A time the clock shows twice is the earlier moment; a time the clock
// skips counts with the offset before the change (02:30 becomes 03:30).
// -1 when it cannot be represented.
int64_t LocalSeconds(const DateTime &local);
// "YYYY-MM-DD HH:MM:SS" in local time; a time of the repeated hour gets the
// zone's abbreviation too ("2026-10-25 02:30:00 CET"), so both stay apart.
std::string LocalTimeText(uint32_t seconds);
// "YYYY-MM-DD HH:MM:SS" in UTC.
std::string UtcTimeText(uint32_t seconds);
// "HH:MM:SS" in local time, with the abbreviation in the repeated hour.
std::string LocalClockText(uint32_t seconds);

// How far the local clock is ahead of UTC at the moment, in seconds.
int32_t LocalUtcOffset(uint32_t seconds);
// The zone's abbreviation in force at the moment ("CEST", "EST").
std::string LocalZoneName(uint32_t seconds);
// True when the local clock shows the moment's time at another moment too.
bool LocalTimeRepeats(uint32_t seconds);

// A stretch of time with one offset of the local clock.
struct LocalClockSpan {
    uint32_t from;     // first second, UTC
    int32_t offset;    // LocalUtcOffset
    std::string zone;  // LocalZoneName
};
// The spans of the local clock from `from` to `to` (inclusive), in order:
// one span, or one more per change of the clock in between.
std::vector<LocalClockSpan> LocalClockSpans(uint32_t from, uint32_t to);

// "YYYY-MM-DD" as a real calendar date. False for anything else.
bool ParseDate(const char *text, DateTime *date);
// Seconds since the epoch (digits only), or a local "YYYY-MM-DDTHH:MM:SS"
// that exists on the local clock. False for anything else.
bool ParseTimeArgument(const char *text, uint32_t *seconds);
