// The record schedule: whether recording may start now (card mounted and
// present, weekly schedule, usable index) and which time segment is running.
#pragma once

#include <cstdint>

// 0: start recording now; -1 (or the storage check's result): do not.
// Leaves the running segment in g_u32RecordScopeIndex.
int CheckRecordStart();

// True when the segment [start, end) holds nowSec; a segment ending at or
// before its start never matches.
bool ScheduleSegmentHolds(int nowSec, int startSec, int endSec);
