// The clocks the record control reads: wall clock, seconds since boot and
// local time. Production uses the system; tests install their own table to
// drive midnight, schedule minutes and clock jumps.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <ctime>

struct RecordClockOps {
    int (*getTimeOfDay)(struct timeval *now);                     // gettimeofday
    time_t (*wallClock)();                                        // time()
    uint32_t (*uptime)();                                         // seconds since boot
    struct tm *(*localTime)(const time_t *when, struct tm *out);  // localtime_r
};

// The table in force.
const RecordClockOps &RecordClock();

// The system table.
const RecordClockOps &SystemRecordClock();

// Installs a table (nullptr restores the system one). Not thread-safe:
// tests swap it while no run is active.
void SetRecordClock(const RecordClockOps *ops);

// Local time of the table's wall clock.
struct tm RecordLocalNow();

// Seconds of the day the schedule works with: hour * 3600 + minute * 60.
int ScheduleSecondsOfDay(int hour, int minute);
