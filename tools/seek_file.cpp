#include "tools/seek_file.h"

#include <algorithm>
#include <ctime>
#include <memory>
#include <string>

#include "avrecord_lib/index_records.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "common/log.h"
#include "common/platform_paths.h"
#include "tools/calendar_time.h"

namespace {

constexpr uint32_t kMaxSearchSections = 250;
// Every log line of a search names the search's own function, its helpers
// and the search over a given card included: field logs are searched by it.
constexpr const char kSeekFunction[] = "SeekFile";

// Open index and event files of one search, closed when it ends.
struct SeekFiles {
    int indexFd = -1;
    int eventFd = -1;
    ~SeekFiles() {
        if (indexFd >= 0) AVFileClose(indexFd);
        if (eventFd >= 0) AVFileClose(eventFd);
    }
};

struct SeekQuery {
    uint16_t type;
    uint32_t start;
    uint32_t end;
};

bool IsAlarmType(uint16_t type) {
    return type == kSeekTypeAlarm1 || type == kSeekTypeAlarm4 || type == kSeekTypeAlarm8;
}

// A media file is searched when its span touches the range at all.
bool FileTouchesRange(uint32_t fileStart, uint32_t fileEnd, const SeekQuery &q) {
    if (fileStart >= fileEnd) return false;
    return (fileStart <= q.end && q.end < fileEnd) || (q.start <= fileStart && fileEnd <= q.end) ||
           (fileStart < q.start && q.start <= fileEnd);
}

// A recording is listed when it lies wholly inside the range, or begins
// before the range and ends inside it (strictly before its end).
bool RecordInRange(uint32_t start, uint32_t end, const SeekQuery &q) {
    if (start >= end) return false;
    return (q.start <= start && end <= q.end) || (start < q.start && q.start <= end && end < q.end);
}

void AddRecord(FileListInfo *list, const char *format, uint32_t fileNo, uint32_t recordNo, uint32_t start,
               uint32_t end, uint32_t frameRate, uint32_t frames, uint32_t size) {
    char name[kFileListNameSize];
    snprintf(name, sizeof(name), format, fileNo, recordNo);
    FileListEntry *entry = FileListAdd(list, name, start, end);
    if (entry == nullptr) return;
    entry->u32FrameRate = frameRate;
    entry->u32FrameCount = frames;
    entry->u32FileSize = size;
}

int SearchSections(int fd, uint32_t fileNo, const SeekQuery &q, FileListInfo *list) {
    FileInfoHead file;
    if (AV_RecordFileInfoHeadAccecsFileNoRead(fd, fileNo, &file) != 0) return -1;
    if (file.m_u32RecordSectionSum >= kMaxSearchSections) file.m_u32RecordSectionSum = kMaxSearchSections;
    if (file.m_u32HeadFlag != kFileInfoHeadFlag) {
        LogTrace("%s %d: AV_RecordFileInfoHeadAccecsFileNoRead NO File \n", kSeekFunction, __LINE__);
        return 0;
    }
    if (!FileTouchesRange(file.m_u32StartTime, file.m_u32EndTime, q)) return 0;
    std::unique_ptr<SectionInfoHead[]> sections(new SectionInfoHead[kMaxSectionNo]);
    if (AV_RecordSectionInfoHeadRead(fd, &file, sections.get()) != 0) return -1;
    for (uint32_t j = 0; j < file.m_u32RecordSectionSum; ++j) {
        const SectionInfoHead &s = sections[j];
        if (s.m_u32HeadFlag != kSectionInfoHeadFlag) {
            LogTrace("%s %d: AV_RecordSectionInfoHeadRead m_u32RecordSectionSum = %d j = %d\n", kSeekFunction,
                     __LINE__, file.m_u32RecordSectionSum, j);
            continue;
        }
        uint32_t end = SeekFileMidnightCorrected(s.m_u32EndTime);
        if (list->s32FileNum < MAX_FILE_NUMBER && RecordInRange(s.m_u32StartTime, end, q)) {
            AddRecord(list, kSectionNameFormat, file.m_u32FileNo, s.m_u16SectionNo, s.m_u32StartTime, end,
                      s.m_u8FrameRate, s.m_u32VideoFrameSum, s.m_u32SectionSize);
        }
    }
    return 0;
}

int SearchEvents(int fd, uint32_t fileNo, const SeekQuery &q, FileListInfo *list) {
    AlarmEventInfo info;
    if (AV_AlarmEventFileInfoRead(fd, fileNo, &info) != 0) return -1;
    if (info.m_u32AlarmEventSum >= kMaxAlarmEventSum) info.m_u32AlarmEventSum = kMaxAlarmEventSum;
    if (info.m_u32HeadFlag != kAlarmEventInfoFlag || info.m_u32StartTime > q.end ||
        (q.type == 0 && (info.m_u8AlarmType & 1) != 0)) {
        return 0;
    }
    // A slot that claims events but counts none is refused by the list read,
    // and fails the search like any other failed read.
    std::unique_ptr<AlarmEventEntry[]> entries(new AlarmEventEntry[kMaxAlarmEventSum]);
    if (AV_AlarmEventEntryListRead(fd, &info, entries.get()) != 0) return -1;
    LogTrace("%s %d:No = %d m_u32AlarmFileNo = %d m_u32AlarmEventSum  = %d\n", kSeekFunction, __LINE__,
             fileNo, info.m_u32AlarmFileNo, info.m_u32AlarmEventSum);
    for (uint32_t i = 0; i < info.m_u32AlarmEventSum; ++i) {
        const AlarmEventEntry &e = entries[i];
        if (e.m_u32HeadFlag != kAlarmEventEntryFlag) {
            LogTrace("%s %d: AV_AlarmEventFileInfoRead End!!!! = %#x\n", kSeekFunction, __LINE__,
                     e.m_u32HeadFlag);
            continue;
        }
        uint32_t end = SeekFileMidnightCorrected(e.m_u32EndTime);
        if (list->s32FileNum < MAX_FILE_NUMBER && RecordInRange(e.m_u32StartTime, end, q) &&
            e.m_u8AlarmType == q.type) {
            AddRecord(list, kEventNameFormat, info.m_u32AlarmFileNo, i, e.m_u32StartTime, end,
                      e.m_u8FrameRate, e.m_u32FrameSum, e.m_u32DataSize);
        }
    }
    return 0;
}

int OpenIndex(const std::string &cardDir, SeekFiles &files, RecordConfigInfo *info) {
    files.indexFd = AVFileOpen((cardDir + kIndexFileName).c_str(), kAVFileModeRead);
    if (files.indexFd < 0) {
        LogTrace("%s %d: open file fail \n", kSeekFunction, __LINE__);
        return -1;
    }
    if (AV_RecordConfigInfoRead(files.indexFd, info) < 0) {
        LogTrace("%s %d: read file Head fail \n", kSeekFunction, __LINE__);
        return -1;
    }
    if (AV_RecordConfigInfoCheck(info) != 0) {
        LogTrace("%s %d: chek file Head fail \n", kSeekFunction, __LINE__);
        return -1;
    }
    return 0;
}

void LogRange(uint32_t startTime, uint32_t endTime) {
    DateTime s = UtcDateTime(startTime), e = UtcDateTime(endTime);
    LogTrace("[SeekFile]## StartTime. %04d-%02d-%02d %02d:%02d:%02d ##\n", s.year, s.month, s.day, s.hour,
             s.minute, s.second);
    LogTrace("[SeekFile]## EndTime. %04d-%02d-%02d %02d:%02d:%02d ##\n", e.year, e.month, e.day, e.hour,
             e.minute, e.second);
}

}  // namespace

uint32_t SeekFileMidnightCorrected(uint32_t endTime) {
    if (endTime == 0) return endTime;
    DateTime local = LocalDateTime(endTime);
    return local.hour == 0 && local.minute == 0 && local.second == 0 ? endTime - 1 : endTime;
}

void SeekFileSortByStartTime(FileListInfo *pFileListInfo) {
    FileListEntry *e = pFileListInfo->stFileList;
    int n = pFileListInfo->s32FileNum;
    for (int i = 0; i < n - 1; ++i) {
        for (int j = 0; j < n - 1 - i; ++j) {
            if (e[j + 1].u32StartTime <= e[j].u32StartTime) std::swap(e[j], e[j + 1]);
        }
    }
}

int SeekFile(uint16_t fileType, uint32_t startTime, uint32_t endTime, FileListInfo *pFileListInfo) {
    return SeekFileOnCard(PlatformPath(kCardMountPoint).c_str(), fileType, startTime, endTime, pFileListInfo);
}

int SeekFileOnCard(const char *cardDir, uint16_t fileType, uint32_t startTime, uint32_t endTime,
                   FileListInfo *pFileListInfo) {
    if (cardDir == nullptr || pFileListInfo == nullptr) {
        LogTrace("[SeekFile]NULL == dir || NULL == pFileListInfo\n");
        return -1;
    }
    LogRange(startTime, endTime);
    SeekFiles files;
    RecordConfigInfo info;
    std::string card(cardDir);
    if (!card.empty() && card.back() != '/') card += '/';
    if (OpenIndex(card, files, &info) != 0) return -1;
    if (IsAlarmType(fileType)) {
        files.eventFd = AVFileOpen((card + kEventFileName).c_str(), kAVFileModeRead);
        if (files.eventFd < 0) return -1;
    }
    pFileListInfo->s32FileNum = 0;
    LogTrace("%s %d: m_u32RecordFileSum = %d  FileType = %d !!!\n", kSeekFunction, __LINE__,
             info.m_u32RecordFileSum, fileType);
    SeekQuery query{fileType, startTime, endTime};
    // A damaged header may count far more files than an index can describe;
    // the search stays within the records the index has room for.
    uint32_t fileSum = std::min(info.m_u32RecordFileSum, kMaxIndexFileRecords);
    for (uint32_t n = 0; n < fileSum; ++n) {
        int result = fileType == kSeekTypeNormal ? SearchSections(files.indexFd, n, query, pFileListInfo)
                                                 : SearchEvents(files.eventFd, n, query, pFileListInfo);
        if (result != 0) return -1;
    }
    SeekFileSortByStartTime(pFileListInfo);
    return 0;
}
