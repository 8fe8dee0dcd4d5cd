#include "record/record_status.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "common/log.h"
#include "common/platform_paths.h"
#include "support/test_support.h"

namespace {

// The file is replaced whole on a change (nothing left beside it), a
// change is logged once with its cause, and the same state again neither
// logs nor moves `since`.
TEST(RecordStatusTest, ChangesReplaceTheFileAndAreLoggedOnce) {
    ScopedRoot root;
    LogEnable("test", 0);
    RecordStatusSet(RecordState::kStopping, "an earlier test's state");
    testing::internal::CaptureStderr();
    RecordStatusSet(RecordState::kCardFailing, "the card refuses writes");
    std::string first = root.ReadFile(kStatusFile);
    sleep(1);
    RecordStatusSet(RecordState::kCardFailing, "the card refuses writes");
    ASSERT_EQ(RecordStatusPublish(), 0);
    std::string again = root.ReadFile(kStatusFile);
    RecordStatusSet(RecordState::kRecording, "recording");
    std::string log = testing::internal::GetCapturedStderr();

    EXPECT_NE(first.find("{\"state\":\"card-failing\",\"cause\":\"the card refuses writes\",\"since\":"),
              std::string::npos)
        << first;
    auto field = [](const std::string &json, const std::string &name) {
        size_t at = json.find("\"" + name + "\":");
        return at == std::string::npos ? -1L : std::stol(json.substr(at + name.size() + 3));
    };
    EXPECT_EQ(field(again, "since"), field(first, "since"));
    EXPECT_GT(field(again, "updated"), field(first, "updated"));
    for (const char *name :
         {"last_frame", "frames_written", "frames_lost", "write_errors", "oldest", "newest"})
        EXPECT_GE(field(first, name), 0) << name;
    EXPECT_NE(first.find("\"card_hours\":"), std::string::npos);
    EXPECT_EQ(CountOf(log, "-> card-failing: the card refuses writes"), 1u) << log;
    EXPECT_EQ(CountOf(log, "card-failing -> recording: recording"), 1u) << log;
    EXPECT_NE(root.ReadFile(kStatusFile).find("\"state\":\"recording\""), std::string::npos);
    EXPECT_NE(access((StatusFilePath() + ".new").c_str(), F_OK), 0);
}

TEST(RecordStatusTest, JsonNamesEveryStateAndEscapesTheCause) {
    const char *names[] = {"recording", "waiting",       "no-card",       "card-read-only", "card-failing",
                           "card-full", "clock-invalid", "index-invalid", "stopping"};
    for (uint32_t k = 0; k < 9; ++k) EXPECT_STREQ(RecordStateName(static_cast<RecordState>(k)), names[k]);
    RecordStatus s{RecordState::kCardFull, 1, 2, "a \"b\"\\\n", 3, 4, 5, 6, 7, 8, 12.25};
    EXPECT_EQ(RecordStatusJson(s),
              "{\"state\":\"card-full\",\"cause\":\"a \\\"b\\\"\\\\\\u000a\",\"since\":1,\"updated\":2,"
              "\"last_frame\":3,\"frames_written\":4,\"frames_lost\":5,\"write_errors\":6,\"oldest\":7,"
              "\"newest\":8,\"card_hours\":12.2}\n");
    s.cardHours = -1;
    EXPECT_NE(RecordStatusJson(s).find("\"card_hours\":null}"), std::string::npos);
}

}  // namespace
