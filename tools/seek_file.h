// Recording search by time over the card's index: which sections (normal
// recordings) or alarm events lie in a time range.
#pragma once

#include <cstdint>

#include "tools/file_list.h"

// Query types: normal recordings, or alarm events of one alarm type.
inline constexpr uint16_t kSeekTypeNormal = 2;
inline constexpr uint16_t kSeekTypeAlarm1 = 1;
inline constexpr uint16_t kSeekTypeAlarm4 = 4;
inline constexpr uint16_t kSeekTypeAlarm8 = 8;

// Fills pFileListInfo with the sections (type 2) or events (types 1, 4, 8)
// that lie wholly inside [startTime, endTime] or begin before it and end
// inside it, sorted by start time; at most MAX_FILE_NUMBER. Media files are
// searched when they touch the range at all. 0, or -1 on a missing list,
// index or event file, a bad index header or a failed read (entries found
// until then stay listed).
int SeekFile(uint16_t fileType, uint32_t startTime, uint32_t endTime, FileListInfo *pFileListInfo);

// The same search on the card mounted at cardDir (SeekFile searches the
// daemon's mount point).
int SeekFileOnCard(const char *cardDir, uint16_t fileType, uint32_t startTime, uint32_t endTime,
                   FileListInfo *pFileListInfo);

// The end time as listed: an end at exactly local midnight is moved one
// second back, into the day it belongs to.
uint32_t SeekFileMidnightCorrected(uint32_t endTime);

// Sorts entries by start time, ascending (bubble sort; entries with equal
// start times are swapped at every comparison).
void SeekFileSortByStartTime(FileListInfo *pFileListInfo);
