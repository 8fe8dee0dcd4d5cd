#include "avrecord_lib/record_index.h"

#include <cstring>

#include "avrecord_lib/record_file.h"

namespace {

// One record at its place: 0 when the whole record moved.
int ReadRecordAt(int fd, uint32_t position, void *record, uint32_t size) {
    if (fd < 0 || record == nullptr) return -1;
    AVFileSeek(fd, static_cast<int32_t>(position), kAVFileSeekSet);
    return AVFileRead(fd, record, size) < 0 ? -1 : 0;
}

// A write whose seek failed would land elsewhere: it is not made.
int WriteRecordAt(int fd, uint32_t position, const void *record, uint32_t size) {
    if (fd < 0 || record == nullptr) return -1;
    if (AVFileSeek(fd, static_cast<int32_t>(position), kAVFileSeekSet) < 0) return -1;
    return AVFileWrite(fd, record, size) < 0 ? -1 : 0;
}

// Reads and checks the header of an open index: 0 when it is valid.
int ReadCheckedConfigInfo(int fd, RecordConfigInfo *info) {
    if (AV_RecordConfigInfoRead(fd, info) < 0) return -1;
    return AV_RecordConfigInfoCheck(info);
}

}  // namespace

int AV_RecordConfigInfoRead(int fd, RecordConfigInfo *info) {
    return ReadRecordAt(fd, 0, info, sizeof *info) < 0 ? -1 : static_cast<int>(sizeof *info);
}

int AV_RecordConfigInfoWrite(int fd, const RecordConfigInfo *info) {
    return WriteRecordAt(fd, 0, info, sizeof *info) < 0 ? -1 : static_cast<int>(sizeof *info);
}

int AV_RecordConfigInfoCheck(const RecordConfigInfo *info) {
    if (info == nullptr) return -1;
    return info->m_u32HeadFlag == kRecordConfigHeadFlag && info->m_u32Version == kRecordConfigVersion ? 0
                                                                                                      : -1;
}

int AV_RecordIndexFileCheck(const char *path) {
    int fd = AVFileOpen(path, kAVFileModeRead);
    if (fd < 0) return -1;
    RecordConfigInfo info;
    int ret = ReadCheckedConfigInfo(fd, &info);
    AVFileClose(fd);
    return ret;
}

int AV_RecordIndexFileClear(const char *path, uint32_t *fileSum) {
    if (fileSum == nullptr) return -1;
    int fd = AVFileOpen(path, kAVFileModeReadWrite);
    if (fd < 0) return -1;
    RecordConfigInfo info;
    int ret = ReadCheckedConfigInfo(fd, &info);
    if (ret == 0) {
        *fileSum = info.m_u32RecordFileSum;
        FileInfoHead emptyFile = {};
        for (uint32_t fileNo = 0; fileNo < info.m_u32RecordFileSum && ret == 0; ++fileNo) {
            ret = AV_RecordFileInfoHeadAccecsFileNoWrite(fd, fileNo, &emptyFile);
        }
        RecordConfigInfo emptyInfo = {};
        if (ret == 0 && AV_RecordConfigInfoWrite(fd, &emptyInfo) < 0) ret = -1;
    }
    AVFileClose(fd);
    return ret;
}

int AV_RecordFileInfoHeadAccecsFileNoRead(int fd, uint32_t fileNo, FileInfoHead *file) {
    return ReadRecordAt(fd, FileInfoHeadPosition(fileNo), file, sizeof *file);
}

int AV_RecordFileInfoHeadAccecsFileNoWrite(int fd, uint32_t fileNo, const FileInfoHead *file) {
    return WriteRecordAt(fd, FileInfoHeadPosition(fileNo), file, sizeof *file);
}

int AV_RecordFileInfoHeadRead(int fd, const RecordConfigInfo *info, FileInfoHead *file) {
    if (info == nullptr) return -1;
    return AV_RecordFileInfoHeadAccecsFileNoRead(fd, info->m_u32FileInfoHeadNo, file);
}

int AV_RecordFileInfoHeadWrite(int fd, const RecordConfigInfo *info, const FileInfoHead *file) {
    if (info == nullptr) return -1;
    return AV_RecordFileInfoHeadAccecsFileNoWrite(fd, info->m_u32FileInfoHeadNo, file);
}

int AV_RecordSectionInfoHeadWrite(int fd, const FileInfoHead *file, const SectionInfoHead *section) {
    if (file == nullptr || section == nullptr) return -1;
    return WriteRecordAt(fd, SectionInfoHeadPosition(file->m_u32FileNo, section->m_u16SectionNo), section,
                         sizeof *section);
}

int AV_RecordSectionInfoHeadRead(int fd, const FileInfoHead *file, SectionInfoHead *sections) {
    if (file == nullptr || file->m_u32RecordSectionSum > kMaxSectionNo) return -1;
    return ReadRecordAt(fd, SectionInfoHeadPosition(file->m_u32FileNo, 1), sections,
                        file->m_u32RecordSectionSum * sizeof(SectionInfoHead));
}

int AV_AlarmEventFileInfoRead(int fd, uint32_t fileNo, AlarmEventInfo *info) {
    return ReadRecordAt(fd, AlarmEventInfoPosition(fileNo), info, sizeof *info);
}

int AV_AlarmEventFileInfoWrite(int fd, uint32_t fileNo, const AlarmEventInfo *info) {
    if (info == nullptr || info->m_u32AlarmEventSum == 0) return -1;
    return AV_AlarmEventFileInfoWriteNoCheck(fd, fileNo, info);
}

int AV_AlarmEventFileInfoWriteNoCheck(int fd, uint32_t fileNo, const AlarmEventInfo *info) {
    return WriteRecordAt(fd, AlarmEventInfoPosition(fileNo), info, sizeof *info);
}

int AV_AlarmEventEntryWrite(int fd, const AlarmEventInfo *info, const AlarmEventEntry *entry) {
    if (info == nullptr || info->m_u32AlarmEventSum == 0) return -1;
    return WriteRecordAt(fd, AlarmEventEntryPosition(info->m_u32AlarmFileNo, info->m_u32AlarmEventSum - 1),
                         entry, sizeof *entry);
}

int AV_AlarmEventEntryListRead(int fd, AlarmEventInfo *info, AlarmEventEntry *entries) {
    if (info == nullptr || info->m_u32AlarmEventSum == 0) return -1;
    if (info->m_u32AlarmEventSum >= kMaxAlarmEventSum) info->m_u32AlarmEventSum = kMaxAlarmEventListRead;
    return ReadRecordAt(fd, AlarmEventEntryPosition(info->m_u32AlarmFileNo, 0), entries,
                        info->m_u32AlarmEventSum * sizeof(AlarmEventEntry));
}

int AV_RecordKeyFrameEntryWrite(int fd, uint32_t offset, const KeyFrameEntry *entry) {
    return WriteRecordAt(fd, kKeyFrameTableOffset + offset, entry, sizeof *entry);
}

int AV_RecordKeyFrameEntryRead(int fd, uint32_t offset, KeyFrameEntry *entry) {
    return ReadRecordAt(fd, kKeyFrameTableOffset + offset, entry, sizeof *entry);
}
