#include "record/record_schedule.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include "avrecord_lib/frame_writer.h"
#include "common/log.h"
#include "common/platform_paths.h"
#include "record/record_clock.h"
#include "record/record_flags.h"
#include "record/record_param_init.h"
#include "record/record_status.h"
#include "record/storage_status.h"
#include "sysconfig/camera_access.h"
#include "sysconfig/sys_info.h"

namespace {

// Walks today's segments of a TIME_SCOPE_DIFF day; true when one holds the
// time, with the highest such segment left in g_u32RecordScopeIndex.
bool DiffDayIsRecordTime(const char *func, const RegularRecordProperty &property, int day, int nowSec) {
    bool recordTime = false;
    for (int k = 0; k < kSysDaySegments; ++k) {
        const ScopeSegment &segment = property.weekScop.dayScope[day].segment[k];
        int startSec = ScheduleSecondsOfDay(segment.beginHour.ucHour, segment.beginHour.ucMinute);
        int endSec = ScheduleSecondsOfDay(segment.endHour.ucHour, segment.endHour.ucMinute);
        LogTrace("%s %d NowSec = %d RecordStartSec = %d RecordEndSec = %d ucHour = %d \n", func, __LINE__,
                 nowSec, startSec, endSec, segment.endHour.ucHour);
        if (ScheduleSegmentHolds(nowSec, startSec, endSec)) {
            FlagSet(g_u32RecordScopeIndex, static_cast<uint32_t>(k));
            LogTrace("%s %d ##########This is Record Time##########\n", func, __LINE__);
            recordTime = true;
        }
    }
    return recordTime;
}

// After a write the card refused, no run starts until the records that
// ended the section are on the card: a new section then starts behind data
// the card holds, whether the card came back by itself, was remounted
// read-write or was put back. 0 when recording may start.
int CardTakesWrites() {
    if (LS_RecordCardError() == 0) return 0;
    int error = LS_RecordIndexRewrite();
    if (error == 0) {
        LogTrace("%s %d: the card takes writes again\n", __func__, __LINE__);
        return 0;
    }
    if (error == EROFS)
        RecordStatusSet(RecordState::kCardReadOnly, "the card's file system is read-only");
    else
        RecordStatusSet(RecordState::kCardFailing, "the card refuses writes");
    return -1;
}

}  // namespace

bool ScheduleSegmentHolds(int nowSec, int startSec, int endSec) {
    return startSec <= nowSec && nowSec < endSec;
}

int CheckRecordStart() {
    const SysInfo *sysInfo = GetSysInfo();
    if (sysInfo == nullptr) {
        LogTrace("%s %d  NULL == pSysInfo \n", __func__, __LINE__);
        return -1;
    }
    if (SDCardMountCheck() == 0) {
        FlagSet(g_bIndexLoaded, 0);
        LogTrace("%s %d NO SDCARD MOUNT %s \n", __func__, __LINE__, kCardMountPoint);
        RecordStatusSet(RecordState::kNoCard, "no card mounted");
        return -1;
    }
    int storage = FileUtilsGetStorageStatus(kCardMountPoint);
    if (storage != 0) {
        RecordStatusSet(RecordState::kNoCard, "the card's device is gone");
        return storage;
    }

    RegularRecordProperty property;
    memset(&property, 0, sizeof property);
    if (CameraGetRegularRecordProperty(&property) != 0) {
        LogTrace("%s %d  CameraGetRegularRecordProperty return -1\n", __func__, __LINE__);
        return -1;
    }
    struct tm now = RecordLocalNow();
    int day = now.tm_wday;
    uint8_t mode = property.weekScop.dayScope[day].ucSocpeMode;
    LogTrace(
        "%s %d: RegularRecordProertyOut.weekScop.dayScope[RecordDay].ucSocpeMode = %d, "
        "pTm_time->tm_wday = %d\n",
        __func__, __LINE__, mode, day);
    LogTrace("%s %d: ##%4d-%02d-%02d %02d:%02d:%02d week %d##\n", __func__, __LINE__, now.tm_year + 1900,
             now.tm_mon + 1, now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec, now.tm_wday);
    int nowSec = ScheduleSecondsOfDay(now.tm_hour, now.tm_min);
    if (property.videoRecord.ucEnable != 1) {
        LogTrace("%s %d VideoRecord not enable \n", __func__, __LINE__);
        RecordStatusSet(RecordState::kWaiting, "recording is switched off");
        return -1;
    }

    bool recordTime = false;
    switch (mode) {
        case TIME_SCOPE_ALL:
            LogTrace("%s %d VideoRecord all day\n", __func__, __LINE__);
            recordTime = true;
            break;
        case TIME_SCOPE_DIFF:
            LogTrace("%s %d VideoRecord TIME_SCOPE_DIFF\n", __func__, __LINE__);
            recordTime = DiffDayIsRecordTime(__func__, property, day, nowSec);
            break;
        case TIME_SCOPE_SAME:
            LogTrace("%s %d VideoRecord TIME_SCOPE_SAME\n", __func__, __LINE__);
            break;
        case TIME_SCOPE_NULL:
            LogTrace("%s %d VideoRecord TIME_SCOPE_NULL\n", __func__, __LINE__);
            break;
        default:
            break;
    }
    if (!recordTime) {
        RecordStatusSet(RecordState::kWaiting, "nothing due by the schedule");
        return -1;
    }
    if (AVRecordParamInit(sysInfo->videoRecord.ucLackSpaceModel) != 0) return -1;
    return CardTakesWrites();
}
