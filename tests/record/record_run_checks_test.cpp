#include "record/record_run_checks.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

RunParams StartParams() {
    RunParams p{};
    p.frameRate = 25;
    p.audioEnable = 1;
    p.audioEncoding = 1;
    p.width = 1920;
    p.height = 1080;
    return p;
}

// A quiet turn at 10:00:00 in segment 08:00-12:00, ten seconds into the run.
RunTurn QuietTurn() {
    RunTurn t{};
    t.now = StartParams();
    t.recordEnable = 1;
    t.dayMode = TIME_SCOPE_DIFF;
    t.segmentStartSec = 8 * 3600;
    t.segmentEndSec = 12 * 3600;
    t.hour = 10;
    t.sectionStartTime = 1000;
    t.sectionEndTime = 1010;
    t.sinceBootDuration = 10;
    t.currentDuration = 10;
    t.clockInCardRange = true;
    return t;
}

void DayEnd(RunTurn &t) {
    t.segmentEndSec = 24 * 3600;
    t.hour = 23, t.minute = 59, t.second = 59;
}

}  // namespace

TEST(RecordRunChecksTest, EachConditionOnItsOwn) {
    const struct {
        const char *name;
        std::function<void(RunTurn &)> change;
        RunEnd expected;
    } cases[] = {
        {"quiet", [](RunTurn &) {}, RunEnd::kNone},
        {"mjpeg", [](RunTurn &t) { t.now.encoding = kEncodingMjpeg; }, RunEnd::kMjpeg},
        {"audio encoding", [](RunTurn &t) { t.now.audioEncoding = 3; }, RunEnd::kAudioEncoding},
        {"video encoding", [](RunTurn &t) { t.now.encoding = 1; }, RunEnd::kVideoEncoding},
        {"frame rate", [](RunTurn &t) { t.now.frameRate = 30; }, RunEnd::kFrameRate},
        {"stream type", [](RunTurn &t) { t.recordStreamType = 1; }, RunEnd::kStreamType},
        {"stream type naming no stream", [](RunTurn &t) { t.recordStreamType = 7; }, RunEnd::kNone},
        {"height", [](RunTurn &t) { t.now.height = 720; }, RunEnd::kResolution},
        {"record enable 0", [](RunTurn &t) { t.recordEnable = 0; }, RunEnd::kRecordDisabled},
        {"codec mode", [](RunTurn &t) { t.now.codecMode = 2; }, RunEnd::kCodecMode},
        {"rotate", [](RunTurn &t) { t.now.rotate = 1; }, RunEnd::kRotate},
        {"segment end", [](RunTurn &t) { t.hour = 12; }, RunEnd::kScheduleOver},
        {"before segment", [](RunTurn &t) { t.hour = 7, t.minute = 59; }, RunEnd::kScheduleOver},
        {"last second of segment", [](RunTurn &t) { t.hour = 11, t.minute = 59, t.second = 59; },
         RunEnd::kNone},
        {"all-day run outside the segment", [](RunTurn &t) { t.dayMode = TIME_SCOPE_ALL, t.hour = 20; },
         RunEnd::kNone},
        {"day end", DayEnd, RunEnd::kDayEnd},
        {"day end, no frame for 2 s",
         [](RunTurn &t) { DayEnd(t), t.sectionEndTime = t.sectionStartTime + 1; }, RunEnd::kNone},
        {"clock +6 s", [](RunTurn &t) { t.currentDuration = 16; }, RunEnd::kClockJump},
        {"clock -6 s", [](RunTurn &t) { t.currentDuration = 4; }, RunEnd::kClockJump},
        {"clock +5 s", [](RunTurn &t) { t.currentDuration = 15; }, RunEnd::kNone},
        {"clock a day back", [](RunTurn &t) { t.currentDuration = -86390; }, RunEnd::kClockJump},
        {"file full", [](RunTurn &t) { t.fileDataSize = 0xF900000; }, RunEnd::kFileFull},
        {"file just below full", [](RunTurn &t) { t.fileDataSize = 0xF900000 - 1; }, RunEnd::kNone},
        {"stop", [](RunTurn &t) { t.stopRequested = 1; }, RunEnd::kStop},
        {"clock past the card's range, stop pending",
         [](RunTurn &t) { t.clockInCardRange = false, t.stopRequested = 1; }, RunEnd::kClockOutOfRange},
    };
    for (const auto &c : cases) {
        RunTurn turn = QuietTurn();
        c.change(turn);
        EXPECT_EQ(RecordRunCheck(StartParams(), 0, turn), c.expected) << c.name;
    }
}

TEST(RecordRunChecksTest, AudioEncodingCountsOnlyWhileAudioIsOn) {
    RunParams start = StartParams();
    start.audioEnable = 0;
    start.audioEncoding = kAudioEncodingOff;
    RunTurn turn = QuietTurn();
    turn.now.audioEnable = 0;
    turn.now.audioEncoding = 3;
    EXPECT_EQ(RecordRunCheck(start, 0, turn), RunEnd::kNone);
}

TEST(RecordRunChecksTest, TheFirstConditionInOrderWins) {
    RunTurn turn = QuietTurn();
    turn.stopRequested = 1;
    turn.fileDataSize = 0xF900000;
    turn.currentDuration = 100;
    turn.now.rotate = 3;
    turn.now.frameRate = 15;
    EXPECT_EQ(RecordRunCheck(StartParams(), 0, turn), RunEnd::kFrameRate);
    turn.now.frameRate = 25;
    EXPECT_EQ(RecordRunCheck(StartParams(), 0, turn), RunEnd::kRotate);
    turn.now.rotate = 0;
    EXPECT_EQ(RecordRunCheck(StartParams(), 0, turn), RunEnd::kClockJump);
}
