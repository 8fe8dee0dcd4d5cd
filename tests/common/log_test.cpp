#include "common/log.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "support/test_support.h"

namespace {

class LogTest : public testing::Test {
protected:
    void SetUp() override { LogResetForTest(); }
    void TearDown() override {
        LogResetForTest();
        LogSetStatusPathForTest("/proc/self/status");
    }
};

TEST_F(LogTest, SilentBeforeEnableButNameLookedUp) {
    testing::internal::CaptureStderr();
    LogTrace("%s %d hidden\n", __func__, __LINE__);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    // The name was looked up on the first call: a later unreadable status
    // file does not turn it back into "unknown".
    LogSetStatusPathForTest("/nonexistent/status");
    LogEnable("OnvifAccess", 3);
    testing::internal::CaptureStderr();
    LogTrace("%s", "x");
    std::string line = testing::internal::GetCapturedStderr();
    EXPECT_EQ(line.find("[unknown]"), std::string::npos) << line;
}

TEST_F(LogTest, LineFormatPerLevel) {
    LogEnable("OnvifAccess", 3);
    testing::internal::CaptureStderr();
    LogTrace("%s %d: open file fail \n", "Fn", 12);
    LogError("e");
    LogWarn("w");
    std::string out = testing::internal::GetCapturedStderr();
    // [name][YYYY-MM-DD HH:MM:SS][Level]: message
    EXPECT_NE(out.find("][Trace]: Fn 12: open file fail \n\n"), std::string::npos) << out;
    EXPECT_NE(out.find("][Error]: e\n"), std::string::npos);
    EXPECT_NE(out.find("][Warn]: w\n"), std::string::npos);
    EXPECT_EQ(out[0], '[');
    size_t stamp = out.find("][") + 2;
    EXPECT_EQ(out[stamp + 4], '-');
    EXPECT_EQ(out[stamp + 19], ']');
}

TEST_F(LogTest, MessageCutAt20478) {
    LogEnable("OnvifAccess", 3);
    std::string longText(30000, 'a');
    testing::internal::CaptureStderr();
    LogTrace("%s", longText.c_str());
    std::string out = testing::internal::GetCapturedStderr();
    size_t start = out.find("]: ") + 3;
    EXPECT_EQ(out.size() - start - 1, 20478u);
}

TEST_F(LogTest, UnreadableStatusGivesUnknownForever) {
    LogSetStatusPathForTest("/nonexistent/status");
    LogEnable("OnvifAccess", 3);
    testing::internal::CaptureStderr();
    LogTrace("one");
    LogSetStatusPathForTest("/proc/self/status");
    LogTrace("two");
    std::string out = testing::internal::GetCapturedStderr();
    EXPECT_EQ(out.rfind("[unknown][", 0), 0u) << out;
    EXPECT_NE(out.find("\n[unknown]["), std::string::npos) << out;
}

TEST_F(LogTest, StampLineIsNeverGated) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(LogStampLine("hello"), 0);
    std::string out = testing::internal::GetCapturedStderr();
    EXPECT_EQ(out.rfind("..................[", 0), 0u);
    EXPECT_NE(out.find(" ] hello\n"), std::string::npos);
    // "YYYY-MM-DD HH:MM:SS.uuuuuu"
    EXPECT_EQ(out.find(" ] "), 19u + 26u);
}

TEST_F(LogTest, TimeStringFormat) {
    char buf[50];
    LogTimeString(buf, sizeof buf);
    EXPECT_EQ(std::string(buf).size(), 19u);
    char small[8];
    LogTimeString(small, sizeof small);
    EXPECT_EQ(std::string(small).size(), 6u);  // snprintf with size - 1
}

}  // namespace

// Each thread formats into its own buffer: lines written at once from two
// threads never carry each other's text.
TEST_F(LogTest, ThreadsFormattingAtOnceKeepTheirOwnText) {
    constexpr int kLines = 500;
    constexpr int kWidth = 300;
    LogEnable("AVRecord", 3);
    testing::internal::CaptureStderr();
    auto writer = [](char c) {
        std::string text(kWidth, c);
        for (int i = 0; i < kLines; ++i) LogTrace("%s\n", text.c_str());
    };
    std::thread a(writer, 'a');
    std::thread b(writer, 'b');
    a.join();
    b.join();
    std::string out = testing::internal::GetCapturedStderr();
    int lines = 0;
    for (size_t at = out.find("[Trace]: "); at != std::string::npos; at = out.find("[Trace]: ", at + 1)) {
        std::string text = out.substr(at + 9, kWidth);
        EXPECT_TRUE(text == std::string(kWidth, 'a') || text == std::string(kWidth, 'b')) << text;
        ++lines;
    }
    EXPECT_EQ(lines, 2 * kLines);
}
