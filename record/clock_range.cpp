#include "record/clock_range.h"

#include <cstdio>
#include <ctime>

#include "common/card_time.h"
#include "common/log.h"
#include "record/record_clock.h"

namespace {

constexpr size_t kClockTextSize = 48;

// Read and written by the daemon's main loop only.
bool g_waiting = false;               // the last answer was false
uint32_t g_lastWaitingLogUptime = 0;  // uptime of the last waiting line

// "YYYY-MM-DD HH:MM:SS UTC" of any time_t the C library can break down.
void UtcText(time_t when, char *text, size_t size) {
    struct tm utc {};
    if (gmtime_r(&when, &utc) == nullptr || strftime(text, size, "%Y-%m-%d %H:%M:%S UTC", &utc) == 0) {
        snprintf(text, size, "(unreadable)");
    }
}

}  // namespace

bool RecordClockInCardRange(const char *func) {
    time_t now = RecordClock().wallClock();
    uint32_t uptime = RecordClock().uptime();
    char text[kClockTextSize];
    UtcText(now, text, sizeof text);
    if (CardTimeInRange(now)) {
        if (g_waiting) {
            LogTrace("%s %d: the clock reads %s, within the card's time range again: recording\n", func,
                     __LINE__, text);
        }
        g_waiting = false;
        return true;
    }
    if (!g_waiting || uptime - g_lastWaitingLogUptime >= kClockRangeLogSeconds) {
        LogError(
            "%s %d: the clock reads %s (%lld), outside the card's time range 1970-01-01 00:00:00 to "
            "2106-02-07 06:28:15 UTC: not recording until the clock is set\n",
            func, __LINE__, text, static_cast<long long>(now));
        g_lastWaitingLogUptime = uptime;
    }
    g_waiting = true;
    return false;
}

void ClockRangeResetForTest() {
    g_waiting = false;
    g_lastWaitingLogUptime = 0;
}
