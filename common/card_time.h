// Card times: unsigned 32-bit seconds since 1970-01-01 00:00:00 UTC, the
// last one 2106-02-07 06:28:15 UTC. Every conversion between a card time and
// time_t goes through these helpers: a card time widens by zero extension
// (2^31 and above stay after 2038), and a time_t outside the card's range is
// refused, never wrapped or truncated.
#pragma once

#include <cstdint>
#include <ctime>

// Every build keeps time in 64 bits (-D_TIME_BITS=64 on 32-bit targets), so
// the clock and the calendar functions go on past 2038-01-19 03:14:07 UTC.
static_assert(sizeof(time_t) == 8, "time_t must be 64 bits: build with -D_TIME_BITS=64");

inline constexpr uint32_t kCardTimeFirst = 0;          // 1970-01-01 00:00:00 UTC
inline constexpr uint32_t kCardTimeLast = UINT32_MAX;  // 2106-02-07 06:28:15 UTC

// The card time as a time_t, zero-extended.
constexpr time_t CardTimeToTime(uint32_t card) { return static_cast<time_t>(card); }

// True when the time_t is one a card can hold.
constexpr bool CardTimeInRange(time_t t) {
    return t >= static_cast<time_t>(kCardTimeFirst) && t <= static_cast<time_t>(kCardTimeLast);
}

// The time_t as a card time: 0, or -1 with *card untouched when it lies
// outside the card's range.
int TimeToCardTime(time_t t, uint32_t *card);

// As TimeToCardTime, for a value about to be stored on the card: a refusal is
// logged once, under the storing function's name and naming `what`, until a
// time in range is stored again.
int CardTimeForStore(time_t t, uint32_t *card, const char *what, const char *function);

// The wall clock (CLOCK_REALTIME) as a card time; -1 when the clock cannot be
// read or reads outside the card's range.
int CardTimeNow(uint32_t *card);
// The same for the stamps of the shared-memory blocks: 0 for "no time".
uint32_t CardTimeNowOrZero();

// Calendar fields of a card time in UTC and in local time (the TZ in force);
// nullptr when the C library cannot give them.
struct tm *CardTimeUtc(uint32_t card, struct tm *out);
struct tm *CardTimeLocal(uint32_t card, struct tm *out);

// Local calendar fields (mktime: normalized in place, tm_isdst as given) to a
// card time; -1 when they name no time within the card's range.
int CardTimeFromLocal(struct tm *local, uint32_t *card);

// Forgets the logged refusal (tests).
void CardTimeResetForTest();
