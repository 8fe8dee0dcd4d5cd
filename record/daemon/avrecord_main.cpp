// AVRecord: the record daemon. Started once at boot, no command line; runs
// until a stop signal or card loss, then leaves at the next moment the
// schedule allows recording.
#include <unistd.h>

#include <cstdio>

#include "avrecord_lib/frame_writer.h"
#include "common/log.h"
#include "common/version.h"
#include "ipc/alarm_shm.h"
#include "ipc/av_server_request.h"
#include "ipc/av_stream.h"
#include "ipc/sps_pps_shm.h"
#include "record/clock_range.h"
#include "record/command_exec.h"
#include "record/device_capability.h"
#include "record/record_flags.h"
#include "record/record_process.h"
#include "record/record_run.h"
#include "record/record_schedule.h"
#include "record/record_settings.h"
#include "record/record_status.h"
#include "sysconfig/camera_access.h"
#include "sysconfig/sys_info.h"

namespace {

constexpr unsigned kScheduleRetrySeconds = 1;
constexpr unsigned kExitPauseSeconds = 2;
constexpr uint32_t kRecordedChannels = 3;
constexpr size_t kBannerSize = 128;

// The reader threads keep running until the process ends; leaving without
// running static destructors keeps them from touching torn-down state.
[[noreturn]] void ExitAfterStop() {
    fflush(nullptr);
    _exit(0);
}

// The first line of every recording run names the build, as "avrecord-card
// version" does, so a field log shows which version wrote it.
void LogVersion() {
    char banner[kBannerSize];
    snprintf(banner, sizeof banner, "AVRecord %s", AVRecordVersion());
    LogStampLine(banner);
}

}  // namespace

int main(int /*argc*/, char ** /*argv*/) {
    if (DeviceLacksRecordCapability()) return 0;
    LogVersion();

    InstallSignalHandlers();
    CameraAccessInit(kRecordCameraType, kRecordProcessArgument);
    RecordStatusStart();
    GetAVStreamInit(kRecordMsgAVType, RecordFrameCallback, RecordStatusCallback);
    for (uint32_t channel = 0; channel < kRecordedChannels; ++channel)
        AVStreamStart(kRecordMsgAVType, channel);
    libAVSpsPpsProcessInit();
    WatchDogThreadStart();
    AVServerCtrlQueueOpen();
    libAlarmProcessInit();
    RecordSettings settings = ReadRecordSettings(__func__);
    int nStreamType = settings.nStreamType;
    int nDuration = settings.nDuration;
    LS_RecordSetSyncSeconds(static_cast<uint32_t>(settings.nSyncSeconds));

    for (;;) {
        if (CheckRecordStart() != 0) {
            LogTrace("%s %d CheckRecordStart sleep\n", __func__, __LINE__);
            sleep(kScheduleRetrySeconds);
            continue;
        }
        if (FlagGet(g_bRecordStop) == 1) {
            RecordStatusSet(RecordState::kStopping, "stop requested");
            Command_System("sync");
            for (unsigned left = kExitPauseSeconds; left > 0;) left = sleep(left);
            LogTrace("%s %d RecordStop AVRecord exit!!!\n", __func__, __LINE__);
            ExitAfterStop();
        }
        if (!RecordClockInCardRange(__func__)) {
            RecordStatusSet(RecordState::kClockInvalid, "the clock reads a time the card cannot hold");
            sleep(kScheduleRetrySeconds);
            continue;
        }
        const SysInfo *sysInfo = GetSysInfo();
        if (sysInfo == nullptr) return -1;
        nStreamType = RecordStreamTypeOf(sysInfo->videoRecord.ucVideoStreamType, nStreamType, __func__);
        LogTrace("%s %d nStreamType = %d, nDuration = %d nVideocodecmode = %d \n", __func__, __LINE__,
                 nStreamType, nDuration, sysInfo->nVideocodecmode);
        LogTrace("%s %d StartRecord\n", __func__, __LINE__);
        StartRecord(nStreamType, nDuration);
    }
}
