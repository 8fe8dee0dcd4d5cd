// The alarm-event thread of a record run: marks the stretches of the
// current media file that belong to an alarm in "event000.bin".
#pragma once

#include "record/alarm_event_logic.h"

// Thread body, started by StartRecord once the writer is open and
// g_bRecording is 1; ends by itself when g_bRecording drops to 0. Detaches
// itself. Result 0, or (void *)-1 when the event file cannot be opened or
// SysInfo goes away.
void *AlarmEventThread(void *arg);

// The current file's event slot as the run starts; a file taken up afresh
// (g_bNewFileInfo) starts with none.
void AlarmEventTrackerLoad(int fd, AlarmEventTracker *tracker);
// Writes the event slot and then the current entry, each when it carries
// its magic; -1 when a write failed.
int AlarmEventFlush(int fd, const AlarmEventTracker &tracker);
