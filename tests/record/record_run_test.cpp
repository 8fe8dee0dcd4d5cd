#include "record/record_run.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>

#include "record_run_fixture.h"

namespace {

struct SplitCase {
    const char *name;
    std::function<void(SysInfo *)> change;
    const char *logLine;
};

}  // namespace

TEST_F(RecordRunTest, EachParameterChangeEndsTheSectionWithItsLine) {
    const SplitCase cases[] = {
        {"encoding", [](SysInfo *s) { s->iEncoding[0] = 1; }, "Video Encoding Change!  0 change to 1"},
        {"mjpeg", [](SysInfo *s) { s->iEncoding[0] = 4; }, "This is MJPEG Stream, not support!"},
        {"frame rate", [](SysInfo *s) { s->ucVideoStandard = 0; },
         "Video FrameRate Change!  25 change to 30"},
        {"stream type", [](SysInfo *s) { s->videoRecord.ucVideoStreamType = 1; },
         "Video Record StreamType Change ! ( 1 != 0 )"},
        {"resolution", [](SysInfo *s) { s->stream[0].usHeight = 720; },
         "StreamType[0] Resolution Change ! ( W:1920 != 1920 or H:720 != 1080 )"},
        {"record enable", [](SysInfo *s) { s->videoRecord.ucEnable = 0; }, "Video Record Enable close !"},
        {"codec mode", [](SysInfo *s) { s->nVideocodecmode = 2; },
         "Video codec mode change !  0 change to 2"},
        {"rotate", [](SysInfo *s) { s->ucVideoRotateMode = 1, s->preRotate = 0; },
         "Video Rotate mode change !  0 change to 1 (preRotate :0  )"},
    };
    uint32_t sectionNo = 0;
    for (const SplitCase &c : cases) {
        SysInfo saved = *sys_;
        StartRun();
        Feed(0, 50);
        testing::internal::CaptureStderr();
        c.change(sys_);
        bool ended = WaitForEnd();
        std::string log = testing::internal::GetCapturedStderr();
        ASSERT_TRUE(ended) << c.name;
        EXPECT_EQ(result_, 0) << c.name;
        EXPECT_NE(log.find(c.logLine), std::string::npos) << c.name << "\n" << log;
        EXPECT_NE(log.find("Record Over"), std::string::npos) << c.name;
        EXPECT_EQ(FlagGet(g_bRecording), 0u) << c.name;
        ++sectionNo;
        SectionInfoHead section = CardSection(0, sectionNo);
        EXPECT_EQ(section.m_u32HeadFlag, kSectionInfoHeadFlag) << c.name;
        EXPECT_EQ(section.m_u32VideoFrameSum, 50u) << c.name;
        *sys_ = saved;
    }
    EXPECT_EQ(responder_->served(), static_cast<int>(std::size(cases)));
}

TEST_F(RecordRunTest, AudioEncodingSplitsOnlyWhileAudioIsOn) {
    sys_->audio.ucEnable = 1;
    StartRun();
    Feed(0, 25);
    sys_->audio.ucEnable = 0;  // the audio enable alone is not watched
    EXPECT_TRUE(StillRunningAfterAWhile());
    testing::internal::CaptureStderr();
    sys_->audio.ucEncoding = 3;
    bool ended = WaitForEnd();
    std::string log = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(ended);
    EXPECT_NE(log.find("Audio Encoding Change!  0 change to 3"), std::string::npos) << log;

    sys_->audio.ucEnable = 0;
    sys_->audio.ucEncoding = 0;
    StartRun();
    sys_->audio.ucEncoding = 1;
    EXPECT_TRUE(StillRunningAfterAWhile());
    StopRun();
}

TEST_F(RecordRunTest, ClockJumpOfMoreThanFiveSecondsEndsTheSection) {
    StartRun();
    Feed(0, 25);
    g_wall += 5;
    EXPECT_TRUE(StillRunningAfterAWhile());
    testing::internal::CaptureStderr();
    g_wall += 1;
    bool ended = WaitForEnd();
    std::string log = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(ended);
    EXPECT_NE(log.find("Changed the time: SinceBootDuration = 1, CurrentDuration = 7"), std::string::npos)
        << log;
}

TEST_F(RecordRunTest, DayEndSplitsAtTheLastSecondOfTheDay) {
    g_localSecondOfDay = 23 * 3600 + 59 * 60 + 58;
    StartRun();
    Feed(0, 75);  // the section has frames two seconds after its start
    EXPECT_TRUE(StillRunningAfterAWhile());
    testing::internal::CaptureStderr();
    g_localSecondOfDay = 23 * 3600 + 59 * 60 + 59;
    auto before = std::chrono::steady_clock::now();
    bool ended = WaitForEnd();
    auto spent = std::chrono::steady_clock::now() - before;
    std::string log = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(ended);
    EXPECT_NE(log.find(": 23:59:59"), std::string::npos) << log;
    EXPECT_NE(log.find("m_u32RecordEndTime = " + std::to_string(kStartWall + 2)), std::string::npos) << log;
    EXPECT_GE(spent, std::chrono::milliseconds(500));  // the next run starts in the new day
    EXPECT_EQ(FlagGet(g_bDayEnd), 0u);
}

TEST_F(RecordRunTest, ScheduledSegmentEndEndsTheSection) {
    auto &day = sys_->videoRecord.weekScope.dayScope[kTuesday];
    day.ucSocpeMode = TIME_SCOPE_DIFF;
    day.segment[2].beginHour.ucHour = 10;
    day.segment[2].endHour.ucHour = 11;
    FlagSet(g_u32RecordScopeIndex, 2);
    g_localSecondOfDay = 10 * 3600 + 59 * 60 + 59;
    StartRun();
    EXPECT_TRUE(StillRunningAfterAWhile());
    testing::internal::CaptureStderr();
    g_localSecondOfDay = 11 * 3600;
    bool ended = WaitForEnd();
    std::string log = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(ended);
    EXPECT_NE(log.find("TIME_SCOPE_DIFF Record Time Over !"), std::string::npos) << log;
}

TEST_F(RecordRunTest, FullFileMovesTheNextSectionToTheNextFile) {
    StartRun();
    Feed(0, 25);
    testing::internal::CaptureStderr();
    GetFileInfoHead()->m_u32DataSize = kMediaFileFullSize;
    bool ended = WaitForEnd();
    std::string log = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(ended);
    EXPECT_NE(log.find("File size  lager  over!"), std::string::npos) << log;
    EXPECT_EQ(GetRecordConfigInfo()->m_u32FileInfoHeadNo, 1u);
    EXPECT_EQ(GetRecordConfigInfo()->m_u32RecordFileUsed, 1u);
}

TEST_F(RecordRunTest, LostCardStopsTheRunAndAsksTheProcessToLeave) {
    StartRun();
    Feed(0, 25);
    testing::internal::CaptureStderr();
    unlink(root_.Under(kCardDevice).c_str());
    bool ended = WaitForEnd();
    std::string log = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(ended);
    EXPECT_NE(log.find("Stop Record"), std::string::npos) << log;
    EXPECT_EQ(FlagGet(g_bRecordStop), 1u);
    FlagSet(g_bRecordStop, 0);
}

TEST_F(RecordRunTest, LaterRunJoinsTheEndOfThePreviousOne) {
    StartRun();
    Feed(0, 50);
    StopRun();
    uint32_t firstEnd = CardSection(0, 1).m_u32EndTime;
    StartRun();
    Feed(0, 25);
    StopRun();
    EXPECT_EQ(CardSection(0, 2).m_u32StartTime, firstEnd);
}

TEST_F(RecordRunTest, MjpegStreamIsRefusedWithoutARun) {
    sys_->iEncoding[1] = 4;
    sys_->videoRecord.ucVideoStreamType = 1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(StartRecord(1, 600), 0);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("This is Mjpeg Stream, not support"), std::string::npos) << log;
    EXPECT_EQ(GetSectionInfoHead()->m_u32HeadFlag, 0u);
    EXPECT_EQ(responder_->served(), 0);
}
