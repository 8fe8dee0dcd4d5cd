#include "sysconfig/sd_card_format.h"

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/log.h"
#include "common/platform_paths.h"
#include "common/shell_command.h"

namespace {

constexpr const char kCardPartitions[] = "/dev/mmcblk1p[0-9]";
constexpr const char kWatchDogProgram[] = "/opt/app/bin/WatchDog";
constexpr unsigned kStopWaitSeconds = 1;
constexpr unsigned kUnmountWaitSeconds = 2;
constexpr unsigned kFormatWaitSeconds = 60;
constexpr unsigned kMountWaitSeconds = 1;

std::atomic<uint32_t> g_bSDCardFormatting{0};

void SleepSeconds(unsigned seconds) { sleep(seconds); }

ShellRunner g_shellRunner = RunShellCommand;
FormatSleeper g_formatSleeper = SleepSeconds;

// How the two entry points differ.
struct FormatVariant {
    const char *who;           // name in the trace lines
    const char *killRecorder;  // the forced stop of the recorder
    bool restartWatchDog;      // kill and restart the watchdog after unmounting
};

void Run(const std::string &command) { g_shellRunner(command.c_str()); }

void RunFormatSequence(const FormatVariant &variant) {
    const std::string marker = PlatformPath(kStorageOptionMarker);
    const std::string mountPoint = PlatformPath(kCardMountPoint);
    const std::string partitions = PlatformPath(kCardPartitions);

    Run("touch " + marker);
    g_bSDCardFormatting.store(1, std::memory_order_relaxed);
    Run("sync");
    Run("killall AVRecord");
    g_formatSleeper(kStopWaitSeconds);
    Run(variant.killRecorder);
    Run("umount -l " + mountPoint);
    g_formatSleeper(kUnmountWaitSeconds);
    if (variant.restartWatchDog) Run("killall -9 WatchDog;" + PlatformPath(kWatchDogProgram) + " &");
    Run("mkfs.vfat " + partitions);
    g_formatSleeper(kFormatWaitSeconds);
    LogTrace("%s %d Start mount SDCard", variant.who, __LINE__);
    Run("mount -t vfat -o usefree,rw " + partitions + " " + mountPoint);
    g_formatSleeper(kMountWaitSeconds);
    g_bSDCardFormatting.store(0, std::memory_order_relaxed);
    Run("rm -f " + marker);
    LogTrace("%s %d End mount SDCard\n", variant.who, __LINE__);
}

void LogStorageOption(const StorageOption &option) {
    LogTrace("pStorageOption->ucStorageType = 0x%x", option.ucStorageType);
    LogTrace("pStorageOption->ucOptType = %d", option.ucOptType);
}

bool IsCardFormat(const StorageOption &option) {
    return option.ucStorageType == kStorageTypeCard && option.ucOptType == kStorageOptFormat;
}

}  // namespace

int RunShellCommand(const char *command) {
    if (command == nullptr) return -1;
    int status = 0;
    if (ShellCommandRun(command, &status) < 0) return -1;
    return status;
}

void SetShellRunner(ShellRunner runner) { g_shellRunner = runner != nullptr ? runner : RunShellCommand; }

void SetFormatSleeper(FormatSleeper sleeper) {
    g_formatSleeper = sleeper != nullptr ? sleeper : SleepSeconds;
}

uint32_t SDCardFormatting() { return g_bSDCardFormatting.load(std::memory_order_relaxed); }

void *SDCard_Format(void * /*arg*/) {
    RunFormatSequence({__func__, "killall -9 AVRecord WatchDog", true});
    return nullptr;
}

int Common_StorageOption(const StorageOption *option) {
    if (option == nullptr) return -1;
    LogStorageOption(*option);
    if (!IsCardFormat(*option)) return 0;
    LogTrace("%s %d Start SD format", __func__, __LINE__);
    pthread_t thread;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (pthread_create(&thread, &attr, SDCard_Format, nullptr) != 0) {
        LogTrace("%s %d errno %s\n", __func__, __LINE__, strerror(errno));
    }
    pthread_attr_destroy(&attr);
    return 0;
}

int Common_StorageOption2(const StorageOption *option) {
    if (option == nullptr) return -1;
    LogStorageOption(*option);
    if (IsCardFormat(*option)) RunFormatSequence({"Begin", "killall -9 AVRecord", false});
    return 0;
}
