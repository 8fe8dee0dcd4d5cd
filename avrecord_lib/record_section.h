// The process-wide index records shared by the record run, the frame writer
// and the alarm thread (one copy each, no lock), and the opening of a new
// recording section on them.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#include "avrecord_lib/index_records.h"

// The current index header, file record and section record.
RecordConfigInfo *GetRecordConfigInfo();
FileInfoHead *GetFileInfoHead();
SectionInfoHead *GetSectionInfoHead();

// End time of the last finished record run (set by the run at its end); the
// next section joins it when it starts at most kSectionJoinSeconds later.
extern std::atomic<uint32_t> g_u32LastRecordEndTime;
inline constexpr uint32_t kSectionJoinSeconds = 2;

// Record type bit of a normal record start.
inline constexpr uint32_t kRecordTypeNormal = 1;

// Opens a section at each record start: a new section of the current file
// when it already holds recordings, else a fresh file record with section 1.
// Returns 0, -1 for a null record or a clock outside the card's time range
// (nothing changed then).
int AV_RecordFileConfigParamGet(RecordConfigInfo *info, FileInfoHead *file, SectionInfoHead *section,
                                uint8_t recordType);

// Circular file choice before a record start, on the loaded records. When
// the current file record is full: with every file used and a cover type of
// 0 recording is refused (-1); otherwise the file record is cleared so that
// the next section starts the current file number afresh, overwriting what
// it held (1: the caller forgets the file's old alarm events). 0 when the
// current file still has room.
int AV_RecordFileCoverCheck(const RecordConfigInfo *info, FileInfoHead *file, uint8_t coverType);
// At the end of a record run: when the current file is full, counts it as
// used and moves on to the next file in circular order.
void AV_RecordNextFileSelect(RecordConfigInfo *info, const FileInfoHead *file);

// Wall-clock seconds for the section opener; tests replace the source
// (nullptr restores the wall clock). The opener refuses a time outside the
// card's range (common/card_time.h).
time_t RecordClockNow();
void SetRecordClockForTest(time_t (*now)());
