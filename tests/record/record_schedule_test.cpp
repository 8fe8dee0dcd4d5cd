#include "record/record_schedule.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "avrecord_lib/record_builder.h"
#include "common/platform_paths.h"
#include "record/record_clock.h"
#include "record/record_flags.h"
#include "support/card_fixture.h"
#include "support/test_support.h"
#include "sysconfig/camera_access.h"
#include "sysconfig/sys_info.h"

namespace {

constexpr int kTuesday = 2;
constexpr uint32_t kMediaFiles = 4;
constexpr uint32_t kUnsetScope = 9;

// The local time the schedule sees.
struct tm g_fakeNow {};
time_t FakeWallClock() { return 1700000000; }
struct tm *FakeLocalTime(const time_t *, struct tm *out) {
    *out = g_fakeNow;
    return out;
}
const RecordClockOps kFakeClock = {SystemRecordClock().getTimeOfDay, FakeWallClock,
                                   SystemRecordClock().uptime, FakeLocalTime};

class RecordScheduleTest : public testing::Test {
protected:
    void SetUp() override {
        REQUIRE_PRIVATE_IPC();
        CameraAccessInit(kCameraTypeCommon, 6);
        sys_ = GetSysInfoForWriting();
        ASSERT_NE(sys_, nullptr);
        memset(sys_, 0, sizeof *sys_);
        sys_->videoRecord.ucEnable = 1;
        sys_->videoRecord.ucLackSpaceModel = 1;
        SetRecordClock(&kFakeClock);
        FlagSet(g_bIndexLoaded, 0);
        FlagSet(g_u32RecordScopeIndex, kUnsetScope);
        MakeCard();
    }
    void TearDown() override { SetRecordClock(nullptr); }

    void MakeCard() {
        root_.WriteFile(kMountTable, "/dev/mmcblk1p1 /media/SDCard vfat rw 0 0\n");
        root_.WriteFile(kCardDevice, "");
        std::string card = root_.Under(kCardMountPoint);
        MakeDirectories(card);
        MakeSparseCard(card, kMediaFiles);
        RecordConfigInfo info{};
        AV_RecordConfigInfoInit(&info, 0, kMediaFiles);
        WriteFileAt(card + kIndexFileName, 0, RecordBytes(info));
    }

    void SetDay(uint8_t mode) { sys_->videoRecord.weekScope.dayScope[kTuesday].ucSocpeMode = mode; }
    void SetSegment(int k, int beginHour, int beginMinute, int endHour, int endMinute) {
        ScopeSegment &s = sys_->videoRecord.weekScope.dayScope[kTuesday].segment[k];
        s.beginHour.ucHour = beginHour;
        s.beginHour.ucMinute = beginMinute;
        s.endHour.ucHour = endHour;
        s.endHour.ucMinute = endMinute;
    }
    static void At(int hour, int minute, int second = 0) {
        g_fakeNow = {};
        g_fakeNow.tm_year = 123;
        g_fakeNow.tm_mday = 14;
        g_fakeNow.tm_wday = kTuesday;
        g_fakeNow.tm_hour = hour;
        g_fakeNow.tm_min = minute;
        g_fakeNow.tm_sec = second;
    }

    ScopedRoot root_;
    SysInfo *sys_ = nullptr;
};

}  // namespace

TEST_F(RecordScheduleTest, SegmentIsHalfOpenToTheMinute) {
    SetDay(TIME_SCOPE_DIFF);
    SetSegment(0, 8, 0, 12, 0);
    struct {
        int hour, minute, second;
        int result;
    } cases[] = {{7, 59, 59, -1}, {8, 0, 0, 0}, {11, 59, 59, 0}, {12, 0, 0, -1}};
    for (const auto &c : cases) {
        At(c.hour, c.minute, c.second);
        EXPECT_EQ(CheckRecordStart(), c.result) << c.hour << ":" << c.minute << ":" << c.second;
    }
    EXPECT_EQ(FlagGet(g_u32RecordScopeIndex), 0u);
}

TEST_F(RecordScheduleTest, OverlappingSegmentsPickTheHighestIndex) {
    SetDay(TIME_SCOPE_DIFF);
    SetSegment(0, 8, 0, 20, 0);
    SetSegment(3, 10, 0, 11, 0);
    At(10, 30);
    EXPECT_EQ(CheckRecordStart(), 0);
    EXPECT_EQ(FlagGet(g_u32RecordScopeIndex), 3u);
    At(12, 0);
    EXPECT_EQ(CheckRecordStart(), 0);
    EXPECT_EQ(FlagGet(g_u32RecordScopeIndex), 0u);
}

TEST_F(RecordScheduleTest, SegmentsDoNotWrapPastMidnight) {
    SetDay(TIME_SCOPE_DIFF);
    SetSegment(0, 22, 0, 2, 0);
    At(23, 0);
    EXPECT_EQ(CheckRecordStart(), -1);
    At(1, 0);
    EXPECT_EQ(CheckRecordStart(), -1);
    SetSegment(1, 23, 0, 24, 0);  // end hour 24 covers the last minute
    At(23, 59, 59);
    EXPECT_EQ(CheckRecordStart(), 0);
    EXPECT_EQ(FlagGet(g_u32RecordScopeIndex), 1u);
}

TEST_F(RecordScheduleTest, DayModesAndTheEnableByte) {
    SetSegment(0, 0, 0, 24, 0);
    At(10, 0);
    const struct {
        uint8_t enable;
        uint8_t mode;
        int result;
    } cases[] = {
        {1, TIME_SCOPE_ALL, 0},
        {1, TIME_SCOPE_DIFF, 0},
        {1, TIME_SCOPE_SAME, -1},
        {1, TIME_SCOPE_NULL, -1},
        {1, 7, -1},
        {0, TIME_SCOPE_ALL, -1},
        {2, TIME_SCOPE_ALL, -1},
    };
    for (const auto &c : cases) {
        sys_->videoRecord.ucEnable = c.enable;
        SetDay(c.mode);
        EXPECT_EQ(CheckRecordStart(), c.result) << int(c.enable) << " " << int(c.mode);
    }
    EXPECT_EQ(FlagGet(g_u32RecordScopeIndex), 0u);  // set by the TIME_SCOPE_DIFF turn only
}

TEST_F(RecordScheduleTest, CardMissingOrFullWithoutOverwrite) {
    SetDay(TIME_SCOPE_ALL);
    At(10, 0);
    ASSERT_EQ(CheckRecordStart(), 0);
    EXPECT_EQ(FlagGet(g_bIndexLoaded), 1u);

    root_.WriteFile(kMountTable, "");
    EXPECT_EQ(CheckRecordStart(), -1);
    EXPECT_EQ(FlagGet(g_bIndexLoaded), 0u);  // read afresh when the card is back

    root_.WriteFile(kMountTable, "/dev/mmcblk1p1 /media/SDCard vfat rw 0 0\n");
    unlink(root_.Under(kCardDevice).c_str());
    EXPECT_EQ(CheckRecordStart(), -1);
    root_.WriteFile(kCardDevice, "");

    // Every file used, the current one full: refused without overwrite.
    RecordConfigInfo info{};
    AV_RecordConfigInfoInit(&info, 0, kMediaFiles);
    info.m_u32RecordFileUsed = kMediaFiles;
    FileInfoHead file{};
    AV_RecordFileInfoHeadInit(&info, &file, 1700000000, 1);
    file.m_u32DataSize = kMediaFileFullSize;
    std::string index = root_.Under(kCardMountPoint) + kIndexFileName;
    WriteFileAt(index, 0, RecordBytes(info));
    WriteFileAt(index, FileInfoHeadPosition(0), RecordBytes(file));
    sys_->videoRecord.ucLackSpaceModel = 0;
    EXPECT_EQ(CheckRecordStart(), -1);
    sys_->videoRecord.ucLackSpaceModel = 1;
    EXPECT_EQ(CheckRecordStart(), 0);
    EXPECT_EQ(FlagGet(g_bNewFileInfo), 1u);
}
