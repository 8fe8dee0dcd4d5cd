#include "avrecord_lib/record_section.h"

#include <sys/time.h>

#include <cstring>
#include <ctime>

#include "avrecord_lib/record_builder.h"
#include "common/card_time.h"
#include "common/log.h"

std::atomic<uint32_t> g_u32LastRecordEndTime{0};

namespace {

RecordConfigInfo g_stRecordConfigInfo;
FileInfoHead g_stFileInfoHead;
SectionInfoHead g_stSectionInfoHead;

// -1 when the clock cannot be read: the opener refuses it like any other
// time outside the card's range.
time_t WallClockNow() {
    struct timeval now {};
    if (gettimeofday(&now, nullptr) != 0) return -1;
    return now.tv_sec;
}

time_t (*g_recordClock)() = WallClockNow;

// Joins the new section to the previous run when it follows it closely; the
// saved end time is used up either way.
uint32_t JoinLastRecordEnd(uint32_t now) {
    uint32_t lastEnd = g_u32LastRecordEndTime.load(std::memory_order_relaxed);
    if (lastEnd == 0 || now <= lastEnd) return now;
    g_u32LastRecordEndTime.store(0, std::memory_order_relaxed);
    return now - lastEnd <= kSectionJoinSeconds ? lastEnd : now;
}

void LogSectionStart(const char *caller, uint32_t startTime) {
    struct tm local {};
    CardTimeLocal(startTime, &local);
    LogTrace("%s %d : ####################################################### \n", caller, __LINE__);
    LogTrace("%s %d: ## PlayTime. %04d-%02d-%02d %02d:%02d:%02d ##  startTime = %d\n", caller, __LINE__,
             local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<int>(startTime));
    LogTrace("%s %d : ####################################################### \n", caller, __LINE__);
}

}  // namespace

RecordConfigInfo *GetRecordConfigInfo() { return &g_stRecordConfigInfo; }
FileInfoHead *GetFileInfoHead() { return &g_stFileInfoHead; }
SectionInfoHead *GetSectionInfoHead() { return &g_stSectionInfoHead; }

time_t RecordClockNow() { return g_recordClock(); }
void SetRecordClockForTest(time_t (*now)()) { g_recordClock = now != nullptr ? now : WallClockNow; }

int AV_RecordFileConfigParamGet(RecordConfigInfo *info, FileInfoHead *file, SectionInfoHead *section,
                                uint8_t recordType) {
    if (info == nullptr || file == nullptr || section == nullptr) return -1;
    uint32_t now = 0;
    if (CardTimeForStore(RecordClockNow(), &now, "section start", __func__) != 0) return -1;
    uint32_t startTime = JoinLastRecordEnd(now);
    LogSectionStart(__func__, startTime);
    if (file->m_u32HeadFlag == kFileInfoHeadFlag) {
        if (startTime < file->m_u32StartTime) AV_RecordFileInfoHeadSetStartTime(file, startTime);
        AV_RecordFileInfoHeadAddRecordType(file, kRecordTypeNormal);
        // Past the last section number the last slot is taken again.
        AV_RecordFileInfoHeadNextSectionNo(file);
    } else {
        AV_RecordFileInfoHeadInit(info, file, startTime, kRecordTypeNormal);
    }
    AV_RecordSectionInfoHeadInit(file, section, startTime, 1, recordType);
    return 0;
}

int AV_RecordFileCoverCheck(const RecordConfigInfo *info, FileInfoHead *file, uint8_t coverType) {
    if (info == nullptr || file == nullptr) return -1;
    if (file->m_u32HeadFlag != kFileInfoHeadFlag || !AV_RecordFileInfoHeadIsFull(file)) return 0;
    bool allUsed = info->m_u32RecordFileUsed >= info->m_u32RecordFileSum;
    if (allUsed && coverType == 0) return -1;
    memset(file, 0, sizeof *file);
    return 1;
}

void AV_RecordNextFileSelect(RecordConfigInfo *info, const FileInfoHead *file) {
    AV_RecordFileUsedAdvance(info, file);
    AV_RecordFileInfoHeadNoAdvance(info, file);
}
