#include "sysconfig/sd_card_format.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace {

// What the replaced runner and waits saw, in order. Only the marker's
// touch and rm are really run (they stay under the test root); the
// commands that would stop processes or touch the card are just recorded.
std::mutex g_eventsMutex;
std::vector<std::string> g_events;
std::string g_marker;
bool g_markerDuringFormat = false;
uint32_t g_flagDuringFormat = 0;

int RecordingRunner(const char *command) {
    std::string text(command);
    if (text.rfind("touch ", 0) == 0 || text.rfind("rm -f ", 0) == 0) RunShellCommand(command);
    std::lock_guard<std::mutex> lock(g_eventsMutex);
    if (text.rfind("mkfs.vfat ", 0) == 0) {
        g_markerDuringFormat = access(g_marker.c_str(), F_OK) == 0;
        g_flagDuringFormat = SDCardFormatting();
    }
    g_events.push_back(text);
    return 0;
}

void RecordingSleeper(unsigned seconds) {
    std::lock_guard<std::mutex> lock(g_eventsMutex);
    g_events.push_back("wait " + std::to_string(seconds));
}

class SdCardFormatTest : public testing::Test {
protected:
    void SetUp() override {
        g_events.clear();
        g_marker = root_.Under("/tmp/StorageOption");
        MakeDirectories(root_.Under("/tmp"));
        g_markerDuringFormat = false;
        g_flagDuringFormat = 0;
        SetShellRunner(RecordingRunner);
        SetFormatSleeper(RecordingSleeper);
    }
    void TearDown() override {
        SetShellRunner(nullptr);
        SetFormatSleeper(nullptr);
    }
    std::vector<std::string> Sequence(bool restartWatchDog) const {
        const std::string card = root_.Under("/media/SDCard/");
        const std::string dev = root_.Under("/dev/mmcblk1p[0-9]");
        std::vector<std::string> steps = {
            "touch " + g_marker,
            "sync",
            "killall AVRecord",
            "wait 1",
            restartWatchDog ? "killall -9 AVRecord WatchDog" : "killall -9 AVRecord",
            "umount -l " + card,
            "wait 2"};
        if (restartWatchDog)
            steps.push_back("killall -9 WatchDog;" + root_.Under("/opt/app/bin/WatchDog") + " &");
        for (const std::string &step :
             {"mkfs.vfat " + dev, std::string("wait 60"), "mount -t vfat -o usefree,rw " + dev + " " + card,
              std::string("wait 1"), "rm -f " + g_marker}) {
            steps.push_back(step);
        }
        return steps;
    }
    void ExpectCompleted(bool restartWatchDog) {
        EXPECT_EQ(g_events, Sequence(restartWatchDog));
        EXPECT_TRUE(g_markerDuringFormat);
        EXPECT_EQ(g_flagDuringFormat, 1u);
        EXPECT_EQ(SDCardFormatting(), 0u);
        EXPECT_NE(access(g_marker.c_str(), F_OK), 0);
    }
    ScopedRoot root_;
};

TEST_F(SdCardFormatTest, StorageOptionFormatsOnItsOwnThread) {
    StorageOption option{0, 1, 0};
    EXPECT_EQ(Common_StorageOption(&option), 0);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(g_eventsMutex);
            if (g_events.size() >= Sequence(true).size()) break;
        }
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "format sequence did not finish";
        usleep(1000);
    }
    // Let the detached thread clear the flag after its last command.
    while (SDCardFormatting() != 0 && std::chrono::steady_clock::now() < deadline) usleep(1000);
    ExpectCompleted(true);
}

TEST_F(SdCardFormatTest, StorageOption2FormatsInPlaceAndLeavesWatchDog) {
    StorageOption option{0, 1, 0};
    EXPECT_EQ(Common_StorageOption2(&option), 0);
    ExpectCompleted(false);
}

TEST_F(SdCardFormatTest, OtherOptionsDoNothing) {
    const StorageOption options[] = {{0, 1, 1}, {0, 2, 0}, {0, 0, 0}};
    for (const StorageOption &option : options) {
        EXPECT_EQ(Common_StorageOption(&option), 0);
        EXPECT_EQ(Common_StorageOption2(&option), 0);
    }
    usleep(20000);
    EXPECT_TRUE(g_events.empty());
}

TEST(ShellCommandTest, RunsThroughShellAndReportsStatus) {
    TempDir dir;
    std::string file = dir.File("made by sh");
    EXPECT_EQ(RunShellCommand(("echo hi > '" + file + "'").c_str()), 0);
    EXPECT_EQ(ReadWholeFile(file), "hi\n");
    int status = RunShellCommand("exit 3");
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST(StorageOptionErrorTest, ErrorPaths) {
    EXPECT_EQ(Common_StorageOption(nullptr), -1);
    EXPECT_EQ(Common_StorageOption2(nullptr), -1);
    EXPECT_EQ(RunShellCommand(nullptr), -1);
}

}  // namespace
