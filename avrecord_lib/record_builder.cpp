#include "avrecord_lib/record_builder.h"

#include <cstring>

void AV_RecordConfigInfoInit(RecordConfigInfo *info, uint32_t configValue, uint32_t storeFileNum) {
    memset(info, 0, sizeof *info);
    info->m_u32HeadFlag = kRecordConfigHeadFlag;
    info->m_u32Version = kRecordConfigVersion;
    info->m_u32RecordConfigValue = configValue;
    info->m_u32RecordSpaceSize = storeFileNum << kMediaFileSizeShift;
    info->m_u32RecordFileSum = storeFileNum;
    info->m_u32CheckCode = kRecordCheckCode;
}

void AV_RecordFileInfoHeadInit(const RecordConfigInfo *info, FileInfoHead *file, uint32_t startTime,
                               uint32_t recordType) {
    memset(file, 0, sizeof *file);
    file->m_u32HeadFlag = kFileInfoHeadFlag;
    file->m_u32FileNo = info->m_u32FileInfoHeadNo;
    file->m_u32StartTime = startTime;
    file->m_u32RecordType = recordType;
    file->m_u32RecordSectionSum = 1;
}

void AV_RecordFileInfoHeadSetStartTime(FileInfoHead *file, uint32_t startTime) {
    file->m_u32StartTime = startTime;
}
void AV_RecordFileInfoHeadSetEndTime(FileInfoHead *file, uint32_t endTime) { file->m_u32EndTime = endTime; }

void AV_RecordFileInfoHeadAddDataSize(FileInfoHead *file, uint32_t size) {
    if (file->m_u32DataSize > kMediaFileFullSize) return;
    file->m_u32DataSize += size;
}

void AV_RecordFileInfoHeadAddRecordType(FileInfoHead *file, uint32_t recordType) {
    file->m_u32RecordType |= recordType;
}

int AV_RecordFileInfoHeadNextSectionNo(FileInfoHead *file) {
    if (file->m_u32RecordSectionSum >= kMaxSectionNo) return -1;
    ++file->m_u32RecordSectionSum;
    return 0;
}

void AV_RecordFileInfoHeadCountKeyFrame(FileInfoHead *file, uint32_t keyFrameFlag) {
    if (keyFrameFlag != 0) ++file->m_u32KeyFrameSum;
}

bool AV_RecordFileInfoHeadIsFull(const FileInfoHead *file) {
    return file->m_u32DataSize >= kMediaFileFullSize;
}

void AV_RecordFileInfoHeadCatchUp(FileInfoHead *file, const SectionInfoHead *sections) {
    uint32_t sum = file->m_u32RecordSectionSum;
    if (sum == 0 || sum > kMaxSectionNo) return;
    const SectionInfoHead &last = sections[sum - 1];
    if (last.m_u32HeadFlag != kSectionInfoHeadFlag) return;
    uint64_t end = uint64_t{last.m_u32SectionOffset} + last.m_u32SectionSize;
    if (end > file->m_u32DataSize && end <= kKeyFrameTableOffset)
        file->m_u32DataSize = static_cast<uint32_t>(end);
    if (last.m_u32EndTime > file->m_u32EndTime) file->m_u32EndTime = last.m_u32EndTime;
    // Once the last slot has been reused the earlier counts of that slot are gone.
    if (sum == kMaxSectionNo) return;
    uint32_t keyFrames = 0;
    for (uint32_t i = 0; i < sum; ++i) keyFrames += sections[i].m_u32KeyFrameSum;
    if (keyFrames > file->m_u32KeyFrameSum && keyFrames <= kMaxKeyFrameEntries)
        file->m_u32KeyFrameSum = keyFrames;
}

void AV_RecordSectionInfoHeadInit(const FileInfoHead *file, SectionInfoHead *section, uint32_t startTime,
                                  uint8_t mediaFlag, uint8_t recordType) {
    memset(section, 0, sizeof *section);
    section->m_u32HeadFlag = kSectionInfoHeadFlag;
    section->m_u32StartTime = startTime;
    section->m_u32FileNo = static_cast<uint16_t>(file->m_u32FileNo);
    section->m_u16SectionNo = static_cast<uint16_t>(file->m_u32RecordSectionSum);
    section->m_u32SectionOffset = file->m_u32DataSize;
    section->m_u32KeyFrameEntrySize = kKeyFrameEntrySize;
    section->m_u8MediaFlag = mediaFlag;
    section->m_u8RecordType = recordType;
}

void AV_RecordSectionInfoHeadSetMediaParam(SectionInfoHead *section, const SectionMediaParam *param) {
    section->m_u16Width = param->width;
    section->m_u16Height = param->height;
    section->m_u8FrameRate = param->frameRate;
    section->m_u8VideoParam = param->videoParam;
    section->m_u8AudioCodeType = param->audioCodeType;
}

void AV_RecordSectionInfoHeadAddSize(SectionInfoHead *section, uint32_t size) {
    if (section->m_u32SectionOffset + section->m_u32SectionSize > kMediaFileFullSize) return;
    section->m_u32SectionSize += size;
}

void AV_RecordSectionInfoHeadSetEndTime(SectionInfoHead *section, uint32_t endTime) {
    section->m_u32EndTime = endTime;
}

void AV_RecordSectionInfoHeadCountFrame(SectionInfoHead *section, uint32_t keyFrameFlag, uint32_t audioFlag) {
    if (keyFrameFlag != 0) ++section->m_u32KeyFrameSum;
    if (audioFlag == 0) ++section->m_u32VideoFrameSum;
}

void AV_RecordKeyFrameEntryInit(KeyFrameEntry *entry, uint32_t time, uint32_t length, uint32_t offset,
                                uint8_t keyType) {
    memset(entry, 0, sizeof *entry);
    entry->m_u32HeadFlag = kKeyFrameEntryFlag;
    entry->m_u32Time = time;
    entry->m_u32FrameSize = length;
    entry->m_u32FrameOffset = offset;
    entry->m_u8KeyType = keyType;
}

void AV_AlarmEventFileInfoInit(AlarmEventInfo *info, uint32_t fileNo, uint32_t startTime, uint8_t alarmType) {
    info->m_u32HeadFlag = kAlarmEventInfoFlag;
    info->m_u32AlarmFileNo = fileNo;
    info->m_u32StartTime = startTime;
    info->m_u32EndTime = 0;
    info->m_u32AlarmEventSum = 0;
    info->m_u8AlarmType = alarmType;
    memset(info->m_u8Reserved, 0, sizeof info->m_u8Reserved);
}

void AV_AlarmEventFileInfoSetStartTime(AlarmEventInfo *info, uint32_t startTime) {
    info->m_u32StartTime = startTime;
}
void AV_AlarmEventFileInfoSetEndTime(AlarmEventInfo *info, uint32_t endTime) { info->m_u32EndTime = endTime; }

void AV_AlarmEventFileInfoNextEvent(AlarmEventInfo *info) {
    if (info->m_u32AlarmEventSum < kMaxAlarmEventSum) ++info->m_u32AlarmEventSum;
}

void AV_AlarmEventEntryInit(const AlarmEventInfo *info, AlarmEventEntry *entry, uint32_t startTime,
                            uint8_t alarmType) {
    memset(entry, 0, sizeof *entry);
    entry->m_u32HeadFlag = kAlarmEventEntryFlag;
    entry->m_u32StartTime = startTime;
    entry->m_u16FileNo = static_cast<uint16_t>(info->m_u32AlarmFileNo);
    entry->m_u16EventNo = static_cast<uint16_t>(info->m_u32AlarmEventSum);
    entry->m_u8AlarmType = alarmType;
}

void AV_AlarmEventEntrySetEndTime(AlarmEventEntry *entry, uint32_t endTime) { entry->m_u32EndTime = endTime; }
void AV_AlarmEventEntrySetDataSize(AlarmEventEntry *entry, uint32_t dataSize) {
    entry->m_u32DataSize = dataSize;
}
void AV_AlarmEventEntrySetFrameSum(AlarmEventEntry *entry, uint32_t frameSum) {
    entry->m_u32FrameSum = frameSum;
}
void AV_AlarmEventEntrySetFrameRate(AlarmEventEntry *entry, uint8_t frameRate) {
    entry->m_u8FrameRate = frameRate;
}

void AV_RecordFileUsedAdvance(RecordConfigInfo *info, const FileInfoHead *file) {
    if (AV_RecordFileInfoHeadIsFull(file) && info->m_u32RecordFileUsed < info->m_u32RecordFileSum) {
        ++info->m_u32RecordFileUsed;
    }
}

void AV_RecordFileInfoHeadNoAdvance(RecordConfigInfo *info, const FileInfoHead *file) {
    if (!AV_RecordFileInfoHeadIsFull(file)) return;
    if (info->m_u32FileInfoHeadNo + 1 >= info->m_u32RecordFileSum) {
        info->m_u32FileInfoHeadNo = 0;
    } else {
        ++info->m_u32FileInfoHeadNo;
    }
}
