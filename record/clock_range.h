// Recording and the card's time range. The card holds times from
// 1970-01-01 00:00:00 to 2106-02-07 06:28:15 UTC; while the wall clock reads
// outside that range (a clock never set, a flat RTC battery, a clock past
// 2106) the daemon records nothing rather than store a wrapped time, and
// says so once a minute until the clock is set right.
#pragma once

#include <cstdint>

inline constexpr uint32_t kClockRangeLogSeconds = 60;  // seconds of uptime between two waiting lines

// True when the record clock's wall time lies within the card's range. When
// it does not: logs the waiting line (the first time, then at most once every
// kClockRangeLogSeconds of uptime) and answers false. The first true after a
// refusal logs that recording goes on.
bool RecordClockInCardRange(const char *func);

// Forgets what was logged (tests).
void ClockRangeResetForTest();
