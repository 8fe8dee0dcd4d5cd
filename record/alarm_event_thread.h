// The alarm-event thread of a record run: marks the stretches of the
// current media file that belong to an alarm in "event000.bin".
#pragma once

// Thread body, started by StartRecord once the writer is open and
// g_bRecording is 1; ends by itself when g_bRecording drops to 0. Detaches
// itself. Result 0, or (void *)-1 when the event file cannot be opened or
// SysInfo goes away.
void *AlarmEventThread(void *arg);
