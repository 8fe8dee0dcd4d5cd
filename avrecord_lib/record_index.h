// Reads, writes and checks of the index records at their fixed places in
// index000.bin, event000.bin and the media files' key-frame tables. Every
// transfer is a seek to the record's place and one exact-length read or
// write (a write whose seek failed is not made; a read's seek result is
// not checked). Results: 0 (or the byte count
// where stated) on success, -1 on a null argument, a negative descriptor or
// a short transfer.
#pragma once

#include <cstdint>

#include "avrecord_lib/index_records.h"

// Index header: exact 236-byte transfer at offset 0; returns 236.
int AV_RecordConfigInfoRead(int fd, RecordConfigInfo *info);
int AV_RecordConfigInfoWrite(int fd, const RecordConfigInfo *info);
// 0 when magic and version match, else -1 ("chek file Head").
int AV_RecordConfigInfoCheck(const RecordConfigInfo *info);
// Opens the index read-only, reads and checks the header, closes; the check
// result.
int AV_RecordIndexFileCheck(const char *path);
// Opens the index read-write, reads and checks the header, hands back
// m_u32RecordFileSum, zeroes the file records 0 .. sum-1 and then the header.
int AV_RecordIndexFileClear(const char *path, uint32_t *fileSum);

// File record of media file fileNo (0x400 + 48 * fileNo).
int AV_RecordFileInfoHeadAccecsFileNoRead(int fd, uint32_t fileNo, FileInfoHead *file);
int AV_RecordFileInfoHeadAccecsFileNoWrite(int fd, uint32_t fileNo, const FileInfoHead *file);
// File record of the header's current file m_u32FileInfoHeadNo.
int AV_RecordFileInfoHeadRead(int fd, const RecordConfigInfo *info, FileInfoHead *file);
int AV_RecordFileInfoHeadWrite(int fd, const RecordConfigInfo *info, const FileInfoHead *file);

// Writes the section record into slot m_u16SectionNo of file m_u32FileNo.
int AV_RecordSectionInfoHeadWrite(int fd, const FileInfoHead *file, const SectionInfoHead *section);
// Reads the file's m_u32RecordSectionSum section records from slot 1 into
// sections, which holds kMaxSectionNo records. A sum above kMaxSectionNo
// (never written by the recorder) is refused.
int AV_RecordSectionInfoHeadRead(int fd, const FileInfoHead *file, SectionInfoHead *sections);

// Alarm-event slot of media file fileNo (256 * fileNo of event000.bin).
int AV_AlarmEventFileInfoRead(int fd, uint32_t fileNo, AlarmEventInfo *info);
// Writes the slot of fileNo; refuses a slot without events.
int AV_AlarmEventFileInfoWrite(int fd, uint32_t fileNo, const AlarmEventInfo *info);
// Writes the slot of fileNo unconditionally.
int AV_AlarmEventFileInfoWriteNoCheck(int fd, uint32_t fileNo, const AlarmEventInfo *info);
// Writes the entry of the slot's latest event (index m_u32AlarmEventSum - 1);
// refuses a slot without events.
int AV_AlarmEventEntryWrite(int fd, const AlarmEventInfo *info, const AlarmEventEntry *entry);
// Reads the slot's event list into entries (kMaxAlarmEventSum - 1 records).
// A sum of 1024 or more is cut to 1023 in *info and 1023 entries are read:
// the 1024th entry is never read back. Refuses a slot without events.
int AV_AlarmEventEntryListRead(int fd, AlarmEventInfo *info, AlarmEventEntry *entries);
inline constexpr uint32_t kMaxAlarmEventListRead = kMaxAlarmEventSum - 1;

// Key-frame entry at offset of the media file's key-frame table (entry k
// at KeyFrameEntryOffset(k)).
int AV_RecordKeyFrameEntryWrite(int fd, uint32_t offset, const KeyFrameEntry *entry);
int AV_RecordKeyFrameEntryRead(int fd, uint32_t offset, KeyFrameEntry *entry);
