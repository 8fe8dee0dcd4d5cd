#include "record/record_run.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/record_section.h"
#include "common/card_time.h"
#include "common/log.h"
#include "common/platform_paths.h"
#include "ipc/av_server_request.h"
#include "record/alarm_event_thread.h"
#include "record/record_clock.h"
#include "record/record_flags.h"
#include "record/record_run_checks.h"
#include "record/record_status.h"
#include "record/storage_status.h"
#include "sysconfig/camera_access.h"
#include "sysconfig/sys_info.h"

namespace {

constexpr useconds_t kWatchTurnUs = 20 * 1000;
constexpr useconds_t kCloseSettleUs = 100 * 1000;
constexpr useconds_t kDayEndPauseUs = 500 * 1000;
constexpr unsigned kMjpegRefusalSeconds = 3;
constexpr int kNewDayWaitTurns = 60;  // 1.2 s of 20 ms turns

// The property records a run compares.
struct RunProperties {
    VideoEncodingProperty video[kSysStreamCount];  // all three streams
    AudioProperty audio;                           // audio enable
    AudioEncodingProperty audioEncoding;           // audio codec
};

void ReadVideoAndAudioEncoding(RunProperties *props) {
    memset(props->video, 0, sizeof props->video);
    memset(&props->audioEncoding, 0, sizeof props->audioEncoding);
    CameraGetVideoEncodingProperty(props->video);
    CameraGetAudioEncodingProperty(&props->audioEncoding);
}

void ReadRunProperties(RunProperties *props) {
    ReadVideoAndAudioEncoding(props);
    memset(&props->audio, 0, sizeof props->audio);
    CameraGetAudioProperty(&props->audio);
}

// What the run compares against, from the properties and SysInfo.
RunParams CurrentParams(const RunProperties &props, const SysInfo &sys, uint32_t stream,
                        uint8_t audioEnable) {
    RunParams p{};
    p.encoding = props.video[stream].iEncoding;
    p.frameRate = props.video[stream].iFrameRate;
    p.smartEncEnable = props.video[stream].iSmartEncEnable;
    p.audioEnable = audioEnable;
    p.audioEncoding = props.audioEncoding.iEncoding;
    p.codecMode = sys.nVideocodecmode;
    p.width = sys.stream[stream].usWidth;
    p.height = sys.stream[stream].usHeight;
    p.rotate = sys.ucVideoRotateMode;
    return p;
}

// Clock readings taken when the run starts.
struct RunClock {
    struct timeval startTime;  // gettimeofday at start
    uint32_t startUptime;      // seconds since boot at start
    time_t startWall;          // time() at start
};

RunClock TakeRunClock() {
    RunClock clock{};
    RecordClock().getTimeOfDay(&clock.startTime);
    clock.startUptime = RecordClock().uptime();
    clock.startWall = RecordClock().wallClock();
    return clock;
}

// A wall-clock difference as the jump check takes it, saturated rather than
// wrapped for a clock set decades away.
int32_t ClampedSeconds(time_t seconds) {
    return static_cast<int32_t>(std::clamp<time_t>(seconds, INT32_MIN, INT32_MAX));
}

RunTurn ObserveTurn(const RunProperties &props, const SysInfo &sys, const RunParams &start, uint32_t stream,
                    const RunClock &clock) {
    RunTurn turn{};
    turn.now = CurrentParams(props, sys, stream, start.audioEnable);
    turn.recordStreamType = sys.videoRecord.ucVideoStreamType;
    turn.recordEnable = sys.videoRecord.ucEnable;

    time_t wall = RecordClock().wallClock();
    struct tm local {};
    RecordClock().localTime(&wall, &local);
    turn.hour = local.tm_hour;
    turn.minute = local.tm_min;
    turn.second = local.tm_sec;
    const SysDayScope &day = sys.videoRecord.weekScope.dayScope[local.tm_wday];
    const ScopeSegment &segment = day.segment[FlagGet(g_u32RecordScopeIndex) % kSysDaySegments];
    turn.dayMode = day.ucSocpeMode;
    turn.segmentStartSec = ScheduleSecondsOfDay(segment.beginHour.ucHour, segment.beginHour.ucMinute);
    turn.segmentEndSec = ScheduleSecondsOfDay(segment.endHour.ucHour, segment.endHour.ucMinute);

    const SectionInfoHead *section = GetSectionInfoHead();
    turn.sectionStartTime = section->m_u32StartTime;
    turn.sectionEndTime = section->m_u32EndTime;
    turn.sinceBootDuration = RecordClock().uptime() - clock.startUptime;
    turn.currentDuration = ClampedSeconds(wall - clock.startWall);
    turn.clockInCardRange = CardTimeInRange(wall);
    turn.fileDataSize = GetFileInfoHead()->m_u32DataSize;
    turn.stopRequested = FlagGet(g_bRecordStop);
    turn.cardError = LS_RecordCardError();
    return turn;
}

// Logs the line of the condition that ended the run.
void LogRunEnd(const char *func, RunEnd reason, const RunParams &start, const RunTurn &turn,
               const SysInfo &sys, uint32_t stream, int initResult) {
    const RunParams &now = turn.now;
    switch (reason) {
        case RunEnd::kClockOutOfRange:
            LogTrace(
                "%s %d: the clock left the card's time range (1970-01-01 to 2106-02-07 06:28:15 UTC): "
                "Stop Record\n",
                func, __LINE__);
            break;
        case RunEnd::kMjpeg:
            LogTrace("%s %d This is MJPEG Stream, not support!\n", func, __LINE__);
            break;
        case RunEnd::kAudioEnable:
            LogTrace("%s %d Audio Enable Change!    %d change to %d \n", func, __LINE__, start.audioEnable,
                     now.audioEnable);
            break;
        case RunEnd::kAudioEncoding:
            LogTrace("%s %d Audio Encoding Change!  %d change to %d \n", func, __LINE__, start.audioEncoding,
                     now.audioEncoding);
            break;
        case RunEnd::kVideoEncoding:
            LogTrace("%s %d Video Encoding Change!  %d change to %d \n", func, __LINE__, start.encoding,
                     now.encoding);
            break;
        case RunEnd::kFrameRate:
            LogTrace("%s %d Video FrameRate Change!  %d change to %d \n", func, __LINE__, start.frameRate,
                     now.frameRate);
            break;
        case RunEnd::kStreamType:
            LogTrace("%s %d Video Record StreamType Change ! ( %d != %d ) \n", func, __LINE__,
                     turn.recordStreamType, stream);
            break;
        case RunEnd::kResolution:
            LogTrace("%s %d StreamType[%d] Resolution Change ! ( W:%d != %d or H:%d != %d ) \n", func,
                     __LINE__, stream, now.width, start.width, now.height, start.height);
            break;
        case RunEnd::kRecordDisabled:
            LogTrace("%s %d Video Record Enable close ! \n", func, __LINE__);
            break;
        case RunEnd::kCodecMode:
            LogTrace("%s %d Video codec mode change !  %d change to %d \n", func, __LINE__, start.codecMode,
                     now.codecMode);
            break;
        case RunEnd::kRotate:
            LogTrace("%s %d Video Rotate mode change !  %d change to %d (preRotate :%d  )\n", func, __LINE__,
                     start.rotate, now.rotate, sys.preRotate);
            break;
        case RunEnd::kScheduleOver:
            LogTrace("%s %d  TIME_SCOPE_DIFF Record Time Over ! \n", func, __LINE__);
            break;
        case RunEnd::kDayEnd:
            LogTrace("%s %d: %02d:%02d:%02d\n", func, __LINE__, turn.hour, turn.minute, turn.second);
            LogTrace("%s %d  m_u32RecordEndTime = %d  \n", func, __LINE__,
                     static_cast<int>(turn.sectionEndTime));
            break;
        case RunEnd::kClockJump:
            LogTrace("%s %d: ret = %d, Changed the time: SinceBootDuration = %lu, CurrentDuration = %lu\n",
                     func, __LINE__, initResult, static_cast<unsigned long>(turn.sinceBootDuration),
                     static_cast<unsigned long>(turn.currentDuration));
            break;
        case RunEnd::kFileFull:
            LogTrace("%s %d  File size  lager  over! \n", func, __LINE__);
            break;
        case RunEnd::kStop:
            LogTrace("%s %d Stop Record\n", func, __LINE__);
            break;
        case RunEnd::kCardFailing:
            LogTrace("%s %d the card refused a write (errno %d): Stop Record\n", func, __LINE__,
                     turn.cardError);
            break;
        case RunEnd::kNone:
            break;
    }
}

void LogPlayTimeEnd(time_t when) {
    struct tm utc {};
    gmtime_r(&when, &utc);
    LogTrace("############### PlayTime End Time. %04d-%02d-%02d %02d:%02d:%02d ##\n", utc.tm_year + 1900,
             utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

// The day end can be seen early in the day's last second: the next run
// must not start before midnight, or its section would span two days.
void WaitForNewDay() {
    for (int turn = 0; turn < kNewDayWaitTurns; ++turn) {
        struct tm now = RecordLocalNow();
        if (!IsLastSecondOfDay(now.tm_hour, now.tm_min, now.tm_sec)) return;
        usleep(kWatchTurnUs);
    }
}

// The end steps of a run.
void EndRun(const char *func, const RunClock &clock, const FileInfoHead &fileBefore) {
    // The writer stops first: a frame in flight lands whole in this section
    // before its end time, sizes and counts are read below.
    LS_RecordStop();
    LogTrace("%s %d: #########Record Over !!!!!!!!!!!!#######\n", func, __LINE__);
    const SectionInfoHead *section = GetSectionInfoHead();
    time_t end = clock.startTime.tv_sec + static_cast<time_t>(RecordClock().uptime() - clock.startUptime);
    LogPlayTimeEnd(end);
    LogPlayTimeEnd(CardTimeToTime(section->m_u32EndTime));
    g_u32LastRecordEndTime.store(section->m_u32EndTime, std::memory_order_relaxed);
    FlagSet(g_bRecording, 0);
    LS_RecordClose();
    usleep(kCloseSettleUs);
    RecordRunIndexEnd(fileBefore);
    if (FlagGet(g_bDayEnd) == 1) {
        usleep(kDayEndPauseUs);
        WaitForNewDay();
        FlagSet(g_bDayEnd, 0);
    }
}

// Watches the run every 20 ms; 0 when a condition ended it (end steps
// done), -1 when SysInfo went away.
int WatchRun(const char *func, const RunParams &start, uint32_t stream, const RunClock &clock,
             const FileInfoHead &fileBefore, int initResult) {
    RunProperties props;
    for (;;) {
        if (FileUtilsGetStorageStatus(kCardMountPoint) != 0) StopRecord();
        ReadVideoAndAudioEncoding(&props);
        const SysInfo *sys = GetSysInfo();
        if (sys == nullptr) return -1;
        RunTurn turn = ObserveTurn(props, *sys, start, stream, clock);
        RunEnd reason = RecordRunCheck(start, stream, turn);
        if (reason != RunEnd::kNone) {
            LogRunEnd(func, reason, start, turn, *sys, stream, initResult);
            if (reason == RunEnd::kDayEnd) FlagSet(g_bDayEnd, 1);
            if (reason == RunEnd::kStop && FileUtilsGetStorageStatus(kCardMountPoint) != 0)
                RecordStatusSet(RecordState::kNoCard, "the card's device is gone");
            EndRun(func, clock, fileBefore);
            return 0;
        }
        usleep(kWatchTurnUs);
    }
}

}  // namespace

void RecordRunIndexEnd(const FileInfoHead &fileBefore) {
    // A run that wrote no frame left nothing on the card: it gives its
    // section number back, so the file never counts an empty slot (or a
    // stale one from the file's earlier use).
    if (GetSectionInfoHead()->m_u32EndTime == 0) *GetFileInfoHead() = fileBefore;
    AV_RecordNextFileSelect(GetRecordConfigInfo(), GetFileInfoHead());
}

int StartRecord(int nStreamType, int /*nDuration*/) {
    uint32_t stream = static_cast<uint32_t>(nStreamType) % kSysStreamCount;
    RecordConfigInfo *info = GetRecordConfigInfo();
    FileInfoHead *file = GetFileInfoHead();
    SectionInfoHead *section = GetSectionInfoHead();
    RunProperties props;
    ReadRunProperties(&props);
    const SysInfo *sys = GetSysInfo();
    if (sys == nullptr) return -1;

    if (props.video[stream].iEncoding == kEncodingMjpeg) {
        FlagSet(g_bRecording, 0);
        RecordStatusSet(RecordState::kWaiting, "the stream is MJPEG, which is not recorded");
        sleep(kMjpegRefusalSeconds);
        LogTrace("%s %d This is Mjpeg Stream, not support\n", __func__, __LINE__);
        return 0;
    }
    // A run that returned without its end steps left the writer taking
    // frames into its section; they stop before the records are reopened.
    LS_RecordStop();
    FileInfoHead fileBefore = *file;
    if (AV_RecordFileConfigParamGet(info, file, section, sys->ucRecordFileOption) < 0) return -1;

    uint8_t audioEnable = props.audio.ucEnable;
    RunParams start = CurrentParams(props, *sys, stream, audioEnable);
    if (audioEnable == 0) start.audioEncoding = kAudioEncodingOff;
    LogTrace("%s %d VideoConfig[%d].iEncoding       %d\n", __func__, __LINE__, stream, start.encoding);
    LogTrace("%s %d VideoConfig[%d].iSmartEncEnable %d\n", __func__, __LINE__, stream, start.smartEncEnable);

    LogTrace("%s %d: CameraSetVideoForceIFrame, VideoId %d\n", __func__, __LINE__, stream);
    AVServerVideoForceIFrame(static_cast<int>(stream));
    LogTrace("%s %d: CameraSetVideoForceIFrame\n", __func__, __LINE__);

    int initResult = LS_RecordInit(file, static_cast<int>(stream));
    if (initResult < 0) return -1;
    RecordStatusReadSpan();
    RecordStatusSet(RecordState::kRecording, "recording");

    FlagSet(g_bRecording, 1);
    pthread_t alarmThread;
    int created = pthread_create(&alarmThread, nullptr, AlarmEventThread, nullptr);
    if (created != 0) {
        errno = created;  // thread creation reports its error as its result
        LogTrace("%s %d errno %s\n", __func__, __LINE__, strerror(errno));
        return -1;
    }

    RunClock clock = TakeRunClock();
    // The stream parameters from SysInfo are taken after the writer opened.
    sys = GetSysInfo();
    if (sys == nullptr) return -1;
    start.codecMode = sys->nVideocodecmode;
    start.width = sys->stream[stream].usWidth;
    start.height = sys->stream[stream].usHeight;
    start.rotate = sys->ucVideoRotateMode;
    return WatchRun(__func__, start, stream, clock, fileBefore, initResult);
}
