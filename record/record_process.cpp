#include "record/record_process.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>

#include "avrecord_lib/frame_writer.h"
#include "common/log.h"
#include "ipc/watchdog_shm.h"
#include "record/record_flags.h"
#include "tools/debug_output.h"

namespace {

constexpr unsigned kWatchDogPeriodSeconds = 2;
constexpr uint8_t kJpegMarker0 = 0xFF;
constexpr uint8_t kJpegMarker1 = 0xD8;
constexpr int kSigKill = 9;

// The log line of a stop signal, nullptr for any other signal.
const char *StopSignalText(int signo) {
    switch (signo) {
        case SIGHUP:
            return "Get a signal -- SIGHUP \n";
        case SIGINT:
            return "Get a signal -- SIGINT \n";
        case SIGQUIT:
            return "Get a signal -- SIGQUIT \n";
        case kSigKill:
            return "Get a signal -- SIG9 \n";
        case SIGTERM:
            return "Get a signal -- SIGTERM \n";
        default:
            return nullptr;
    }
}

}  // namespace

void SignalProcess(int signo) {
    if (FlagGet(g_bSignalHandled) == 1) return;
    LogTrace("%s %d signo %d\n", __func__, __LINE__, signo);
    const char *text = StopSignalText(signo);
    if (text == nullptr) return;
    LogTrace("%s", text);
    StopRecord();
    FlagSet(g_bSignalHandled, 1);
}

void InstallSignalHandlers() {
    signal(SIGHUP, SignalProcess);
    signal(SIGINT, SignalProcess);
    signal(SIGQUIT, SignalProcess);
    signal(SIGTERM, SignalProcess);
}

int WatchDogThreadStart() {
    pthread_t thread;
    pthread_create(&thread, nullptr, WatchDogThread, nullptr);
    return 0;
}

void *WatchDogThread(void * /*arg*/) {
    prctl(PR_SET_NAME, "WatchDogThread");
    libWatchDogInit();
    for (;;) {
        libDebugOutputStart(kDebugOutputPort);
        WatchDogDataWrite(kRecordWatchDogSource);
        sleep(kWatchDogPeriodSeconds);
    }
    return nullptr;
}

int RecordFrameCallback(uint32_t avSource, uint32_t videoIndex, uint8_t *payload, AVDataInfo *info) {
    if (payload != nullptr && info != nullptr && info->AVDataLen >= 2 && payload[0] == kJpegMarker0 &&
        payload[1] == kJpegMarker1) {
        return 0;
    }
    return libAVRecordWriteFrame(videoIndex, avSource, payload, info);
}

int RecordStatusCallback(uint32_t /*videoIndex*/) { return 1; }
