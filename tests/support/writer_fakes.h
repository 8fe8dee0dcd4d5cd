// Stand-ins for what the frame writer reads around it, for tests that record
// through it: the channel's encoding settings and the two clocks, set by the
// test and handed over by these functions (install them with
// LS_RecordSetEncodingSource, LS_RecordSetClocks and SetRecordClockForTest).
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <ctime>

#include "avrecord_lib/frame_writer.h"

inline RecordEncodingInfo g_encoding;
inline struct timeval g_wall;
inline uint32_t g_uptime;

inline int TestEncoding(int, RecordEncodingInfo *info) {
    *info = g_encoding;
    return 0;
}
inline void TestWall(struct timeval *now) { *now = g_wall; }
inline uint32_t TestUptime() { return g_uptime; }
inline time_t TestRecordClock() { return g_wall.tv_sec; }
