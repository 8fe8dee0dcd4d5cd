#include "sysconfig/sd_card_format.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>
#include <string>

#include "common/platform_paths.h"
#include "support/test_support.h"

namespace {

// What the replaced runner and waits saw, one line each. Only the marker's
// touch and rm really run (under the test root); the commands that would
// stop processes or touch the card are just recorded.
std::mutex g_mutex;
std::string g_events;
std::string g_markerDuringFormat;

int RecordingRunner(const char *command) {
    std::string text(command);
    if (text.rfind("touch ", 0) == 0 || text.rfind("rm -f ", 0) == 0) RunShellCommand(command);
    std::lock_guard<std::mutex> lock(g_mutex);
    if (text.rfind("mkfs.vfat ", 0) == 0) {
        g_markerDuringFormat =
            access(PlatformPath(kStorageOptionMarker).c_str(), F_OK) == 0 ? "marker" : "no marker";
        g_markerDuringFormat += SDCardFormatting() == 1 ? ", flag" : ", no flag";
    }
    g_events += text + "\n";
    return 0;
}

void RecordingSleeper(unsigned seconds) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_events += "wait " + std::to_string(seconds) + "\n";
}

class SdCardFormatTest : public testing::Test {
protected:
    void SetUp() override {
        g_events.clear();
        g_markerDuringFormat.clear();
        MakeDirectories(root_.Under("/tmp"));
        SetShellRunner(RecordingRunner);
        SetFormatSleeper(RecordingSleeper);
    }
    void TearDown() override {
        SetShellRunner(nullptr);
        SetFormatSleeper(nullptr);
    }
    std::string Expected(const std::string &killRecorder, bool restartWatchDog) const {
        const std::string marker = root_.Under("/tmp/StorageOption");
        const std::string card = root_.Under("/media/SDCard/");
        const std::string dev = root_.Under("/dev/mmcblk1p[0-9]");
        return "touch " + marker + "\nsync\nkillall AVRecord\nwait 1\n" + killRecorder + "\numount -l " +
               card + "\nwait 2\n" +
               (restartWatchDog ? "killall -9 WatchDog;" + root_.Under("/opt/app/bin/WatchDog") + " &\n"
                                : "") +
               "mkfs.vfat " + dev + "\nwait 60\nmount -t vfat -o usefree,rw " + dev + " " + card +
               "\nwait 1\nrm -f " + marker + "\n";
    }
    void ExpectCompleted(const std::string &expected) {
        EXPECT_EQ(g_events, expected);
        EXPECT_EQ(g_markerDuringFormat, "marker, flag");
        EXPECT_EQ(SDCardFormatting(), 0u);
        EXPECT_NE(access(root_.Under("/tmp/StorageOption").c_str(), F_OK), 0);
    }
    ScopedRoot root_;
};

TEST_F(SdCardFormatTest, StorageOptionFormatsOnItsOwnThread) {
    StorageOption option{0, 1, 0};
    EXPECT_EQ(Common_StorageOption(&option), 0);
    const std::string expected = Expected("killall -9 AVRecord WatchDog", true);
    for (int waited = 0; waited < 5000; ++waited) {
        {
            std::lock_guard<std::mutex> lock(g_mutex);
            if (g_events.size() >= expected.size()) break;
        }
        usleep(1000);
    }
    ExpectCompleted(expected);
}

TEST_F(SdCardFormatTest, StorageOption2FormatsInPlaceAndLeavesWatchDog) {
    StorageOption option{0, 1, 0};
    EXPECT_EQ(Common_StorageOption2(&option), 0);
    ExpectCompleted(Expected("killall -9 AVRecord", false));
}

TEST_F(SdCardFormatTest, ErrorPaths) {
    // Anything but "format the card" does nothing.
    for (const StorageOption &option :
         {StorageOption{0, 1, 1}, StorageOption{0, 2, 0}, StorageOption{0, 0, 0}}) {
        EXPECT_EQ(Common_StorageOption(&option), 0);
        EXPECT_EQ(Common_StorageOption2(&option), 0);
    }
    EXPECT_EQ(Common_StorageOption(nullptr), -1);
    EXPECT_EQ(Common_StorageOption2(nullptr), -1);
    usleep(20000);
    EXPECT_EQ(g_events, "");
    EXPECT_EQ(RunShellCommand(nullptr), -1);
    int status = RunShellCommand("exit 3");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
}

}  // namespace
