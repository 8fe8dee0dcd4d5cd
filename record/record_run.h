// One record run: a section of continuous recording of one encoder stream,
// watched every 20 ms until something ends it.
#pragma once

#include "avrecord_lib/index_records.h"

// Runs one section of stream nStreamType (0..2). nDuration is accepted and
// not used: a run ends on a change, the schedule, the day end, a clock
// jump, a full file, a lost card or a stop, never after a fixed time.
// 0 when a run took place (or an MJPEG stream was refused), -1 when it
// could not start or SysInfo went away.
int StartRecord(int nStreamType, int nDuration);

// The index side of a run's end, once the writer is closed: fileBefore is
// the file record as it was before the run opened its section. A full file
// is counted as used and left for the next one.
void RecordRunIndexEnd(const FileInfoHead &fileBefore);
