#include "record/record_clock.h"

#include <sys/sysinfo.h>

namespace {

int SystemGetTimeOfDay(struct timeval *now) { return gettimeofday(now, nullptr); }

time_t SystemWallClock() { return time(nullptr); }

uint32_t SystemUptime() {
    struct sysinfo info {};
    if (sysinfo(&info) != 0) return 0;
    return static_cast<uint32_t>(info.uptime);
}

struct tm *SystemLocalTime(const time_t *when, struct tm *out) {
    return localtime_r(when, out);
}

constexpr RecordClockOps kSystemClock = {SystemGetTimeOfDay, SystemWallClock, SystemUptime, SystemLocalTime};

const RecordClockOps *g_clock = &kSystemClock;

}  // namespace

const RecordClockOps &RecordClock() { return *g_clock; }

const RecordClockOps &SystemRecordClock() { return kSystemClock; }

void SetRecordClock(const RecordClockOps *ops) { g_clock = ops != nullptr ? ops : &kSystemClock; }

struct tm RecordLocalNow() {
    time_t now = RecordClock().wallClock();
    struct tm local {};
    RecordClock().localTime(&now, &local);
    return local;
}

int ScheduleSecondsOfDay(int hour, int minute) { return hour * 3600 + minute * 60; }
