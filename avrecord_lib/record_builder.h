// Builders and updaters of the index records, all on in-memory records.
// Sizes stop growing just past the full mark (kMediaFileFullSize) rather
// than failing; the file change happens at the next record start.
#pragma once

#include <cstdint>

#include "avrecord_lib/index_records.h"

// Index header: magic, version 1, the configuration word, space size
// storeFileNum << 28 (modulo 2^32), file sum, nothing used, file 0.
void AV_RecordConfigInfoInit(RecordConfigInfo *info, uint32_t configValue, uint32_t storeFileNum);

// Fresh file record for the header's current file, with one section.
void AV_RecordFileInfoHeadInit(const RecordConfigInfo *info, FileInfoHead *file, uint32_t startTime,
                               uint32_t recordType);
void AV_RecordFileInfoHeadSetStartTime(FileInfoHead *file, uint32_t startTime);
void AV_RecordFileInfoHeadSetEndTime(FileInfoHead *file, uint32_t endTime);
// Adds size unless m_u32DataSize already exceeds the full mark.
void AV_RecordFileInfoHeadAddDataSize(FileInfoHead *file, uint32_t size);
void AV_RecordFileInfoHeadAddRecordType(FileInfoHead *file, uint32_t recordType);
// Takes the next section number: 0, or -1 (unchanged) once the file holds
// kMaxSectionNo sections.
int AV_RecordFileInfoHeadNextSectionNo(FileInfoHead *file);
void AV_RecordFileInfoHeadCountKeyFrame(FileInfoHead *file, uint32_t keyFrameFlag);
// True when the media file takes no new section.
bool AV_RecordFileInfoHeadIsFull(const FileInfoHead *file);
// Brings a file record up to its sections (the file's m_u32RecordSectionSum
// of them): a frame's section record is written before its file record, so
// a daemon stopped between the two leaves the file's data size, end time and
// key-frame count one frame behind its last section. A section started on
// such a record would begin inside the last one's data.
void AV_RecordFileInfoHeadCatchUp(FileInfoHead *file, const SectionInfoHead *sections);

// Section record numbered m_u32RecordSectionSum of the file, starting at the
// file's current data size.
void AV_RecordSectionInfoHeadInit(const FileInfoHead *file, SectionInfoHead *section, uint32_t startTime,
                                  uint8_t mediaFlag, uint8_t recordType);
// Media parameters of the section, filled at its first key frame.
struct SectionMediaParam {
    uint16_t width;         // as recorded, rotation applied
    uint16_t height;        // as recorded
    uint8_t frameRate;      // frames per second
    uint8_t videoParam;     // further byte of the video encoding settings
    uint8_t audioCodeType;  // 0, 1 or 3
};
void AV_RecordSectionInfoHeadSetMediaParam(SectionInfoHead *section, const SectionMediaParam *param);
// Adds size unless the section already reaches past the full mark.
void AV_RecordSectionInfoHeadAddSize(SectionInfoHead *section, uint32_t size);
void AV_RecordSectionInfoHeadSetEndTime(SectionInfoHead *section, uint32_t endTime);
// Key flag non-zero: one more key frame; audio flag zero: one more video frame.
void AV_RecordSectionInfoHeadCountFrame(SectionInfoHead *section, uint32_t keyFrameFlag, uint32_t audioFlag);

void AV_RecordKeyFrameEntryInit(KeyFrameEntry *entry, uint32_t time, uint32_t length, uint32_t offset,
                                uint8_t keyType);

void AV_AlarmEventFileInfoInit(AlarmEventInfo *info, uint32_t fileNo, uint32_t startTime, uint8_t alarmType);
void AV_AlarmEventFileInfoSetStartTime(AlarmEventInfo *info, uint32_t startTime);
void AV_AlarmEventFileInfoSetEndTime(AlarmEventInfo *info, uint32_t endTime);
// One more event while the slot holds fewer than kMaxAlarmEventSum.
void AV_AlarmEventFileInfoNextEvent(AlarmEventInfo *info);

// Entry for the slot's next event (index m_u32AlarmEventSum).
void AV_AlarmEventEntryInit(const AlarmEventInfo *info, AlarmEventEntry *entry, uint32_t startTime,
                            uint8_t alarmType);
void AV_AlarmEventEntrySetEndTime(AlarmEventEntry *entry, uint32_t endTime);
void AV_AlarmEventEntrySetDataSize(AlarmEventEntry *entry, uint32_t dataSize);
void AV_AlarmEventEntrySetFrameSum(AlarmEventEntry *entry, uint32_t frameSum);
void AV_AlarmEventEntrySetFrameRate(AlarmEventEntry *entry, uint8_t frameRate);

// Leaving a full current file: the used count grows up to the file sum...
void AV_RecordFileUsedAdvance(RecordConfigInfo *info, const FileInfoHead *file);
// ...and the current file moves on circularly, 0 after the last.
void AV_RecordFileInfoHeadNoAdvance(RecordConfigInfo *info, const FileInfoHead *file);
