#include "record/alarm_event_thread.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <string>

#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "common/card_time.h"
#include "common/log.h"
#include "common/platform_paths.h"
#include "ipc/alarm_shm.h"
#include "record/alarm_event_logic.h"
#include "record/record_clock.h"
#include "record/record_flags.h"
#include "record/storage_status.h"
#include "sysconfig/sys_info.h"

namespace {

constexpr useconds_t kAlarmPollUs = 80 * 1000;
void *const kThreadFailed = reinterpret_cast<void *>(-1);

}  // namespace

int AlarmEventFlush(int fd, const AlarmEventTracker &tracker) {
    const AlarmEventInfo &info = tracker.info();
    if (info.m_u32HeadFlag == kAlarmEventInfoFlag &&
        AV_AlarmEventFileInfoWrite(fd, info.m_u32AlarmFileNo, &info) < 0) {
        return -1;
    }
    if (tracker.entry().m_u32HeadFlag == kAlarmEventEntryFlag &&
        AV_AlarmEventEntryWrite(fd, &info, &tracker.entry()) < 0) {
        return -1;
    }
    return 0;
}

void AlarmEventTrackerLoad(int fd, AlarmEventTracker *tracker) {
    AV_AlarmEventFileInfoRead(fd, GetFileInfoHead()->m_u32FileNo, &tracker->info());
    if (FlagGet(g_bNewFileInfo) != 0) {
        FlagSet(g_bNewFileInfo, 0);
        tracker->Reset();
    }
}

namespace {

// Record type of the running segment of a TIME_SCOPE_DIFF day; 0 on other
// days. -1 when the segment no longer holds the time of day.
int SegmentRecordType(const SysInfo &sys) {
    struct tm now = RecordLocalNow();
    const SysDayScope &day = sys.videoRecord.weekScope.dayScope[now.tm_wday];
    if (day.ucSocpeMode != TIME_SCOPE_DIFF) return 0;
    const ScopeSegment &segment = day.segment[FlagGet(g_u32RecordScopeIndex) % kSysDaySegments];
    int nowSec = ScheduleSecondsOfDay(now.tm_hour, now.tm_min);
    int startSec = ScheduleSecondsOfDay(segment.beginHour.ucHour, segment.beginHour.ucMinute);
    int endSec = ScheduleSecondsOfDay(segment.endHour.ucHour, segment.endHour.ucMinute);
    if (nowSec < startSec || nowSec >= endSec) return -1;
    return segment.endHour.ucType;
}

// One turn: reads the alarms and lets the tracker decide; -1 when a
// write failed and marking has to stop.
int AlarmTurnOnce(const char *func, int fd, AlarmEventTracker *tracker, const SysInfo &sys,
                  uint32_t recordType, uint32_t now) {
    AlarmShmEntry alarms[kAlarmSourceCount];
    memset(alarms, 0, sizeof alarms);
    AlarmDataRead(alarms);
    const FileInfoHead *file = GetFileInfoHead();
    AlarmTurn turn{
        now,  recordType,          alarms, sys.videoRecord.ucpreRecordTime, sys.videoRecord.ucrecordDelay,
        file, GetSectionInfoHead()};
    AlarmAction action = tracker->Turn(turn);
    if (action == AlarmAction::kNone) return 0;
    uint32_t delay = tracker->recordDelaySeconds();
    if (action == AlarmAction::kClose) {
        LogTrace("%s %d :AlarmDurationTime = %d RecordDelayTime = %d m_u32FileInfoHeadNo = %d\n", func,
                 __LINE__, tracker->duration(), delay, file->m_u32FileNo);
    }
    if (AlarmEventFlush(fd, *tracker) != 0) return -1;
    if (action == AlarmAction::kFlushTail) {
        LogTrace(
            "%s %d :######################AlarmEndTime = %d RecordDelayTime = %d m_u32FileInfoHeadNo = %d \n",
            func, __LINE__, static_cast<int>(tracker->eventEnd()), delay, file->m_u32FileNo);
    }
    return 0;
}

void *EndAlarmThread(const char *func, int fd, void *result) {
    LogTrace("%s %d :AlarmEvent end !!!\n", func, __LINE__);
    AVFileClose(fd);
    return result;
}

}  // namespace

void *AlarmEventThread(void * /*arg*/) {
    prctl(PR_SET_NAME, "AlarmEventThread");
    pthread_detach(pthread_self());
    std::string path = PlatformPath(kCardMountPoint) + kEventFileName;
    int fd = AVFileOpen(path.c_str(), kAVFileModeReadWrite);
    if (fd < 0) return kThreadFailed;

    AlarmEventTracker tracker;
    AlarmEventTrackerLoad(fd, &tracker);
    struct timeval startTime {};
    RecordClock().getTimeOfDay(&startTime);
    uint32_t startUptime = RecordClock().uptime();
    libAlarmProcessInit();

    while (FlagGet(g_bRecording) == 1) {
        usleep(kAlarmPollUs);
        const SysInfo *sys = GetSysInfo();
        if (sys == nullptr) {
            AVFileClose(fd);
            return kThreadFailed;
        }
        int recordType = SegmentRecordType(*sys);
        if (recordType < 0) {
            LogTrace("%s %d  TIME_SCOPE_DIFF Record Time Over ! \n", __func__, __LINE__);
            continue;
        }
        if (FileUtilsGetStorageStatus(kCardMountPoint) != 0) StopRecord();
        // A time the card cannot hold marks nothing; the run ends on it.
        uint32_t now = 0;
        time_t counted = startTime.tv_sec + static_cast<time_t>(RecordClock().uptime() - startUptime);
        if (CardTimeForStore(counted, &now, "alarm event time", __func__) != 0) continue;
        if (AlarmTurnOnce(__func__, fd, &tracker, *sys, static_cast<uint32_t>(recordType), now) != 0) {
            return EndAlarmThread(__func__, fd, 0);
        }
    }
    AlarmEventFlush(fd, tracker);  // what is still open at the run's end
    return EndAlarmThread(__func__, fd, 0);
}
