#include "record/record_schedule.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_section.h"
#include "common/file_io.h"
#include "common/platform_paths.h"
#include "record/record_clock.h"
#include "record/record_flags.h"
#include "record/record_status.h"
#include "support/card_fixture.h"
#include "support/es_frames.h"
#include "support/scoped_zone.h"
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

// The system's local time of a wall clock the test moves.
time_t g_wall = 0;
time_t MovedWallClock() { return g_wall; }
const RecordClockOps kZoneClock = {SystemRecordClock().getTimeOfDay, MovedWallClock,
                                   SystemRecordClock().uptime, SystemRecordClock().localTime};

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

    void SetDay(uint8_t mode, int weekday = kTuesday) {
        sys_->videoRecord.weekScope.dayScope[weekday].ucSocpeMode = mode;
    }
    void SetSegment(int k, int beginHour, int beginMinute, int endHour, int endMinute,
                    int weekday = kTuesday) {
        ScopeSegment &s = sys_->videoRecord.weekScope.dayScope[weekday].segment[k];
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

// On the days the clocks change the schedule follows the local clock: a
// segment in the hour the spring change skips never records, one holding
// the hour the autumn change repeats records it twice. Minutes of record
// time are counted by moving the wall clock (UTC) in steps across the two
// hours either side of the change.
TEST_F(RecordScheduleTest, DaylightSavingDaysFollowTheLocalClock) {
    constexpr int kSunday = 0;
    constexpr time_t kStep = 600;
    constexpr time_t kAround = 7200;
    struct Case {
        const char *zone;
        time_t change;  // the moment the clocks change, UTC
        int beginHour, beginMinute, endHour, endMinute;
        int minutes;  // of record time
    } cases[] = {
        {"Europe/Berlin", 1774746000, 2, 0, 3, 0, 0},       // 2026-03-29: skipped
        {"Europe/Berlin", 1774746000, 1, 30, 3, 30, 60},    // spans the skipped hour
        {"Europe/Berlin", 1792890000, 2, 0, 3, 0, 120},     // 2026-10-25: repeated
        {"Europe/Berlin", 1792890000, 2, 30, 3, 0, 60},     // half of it, twice
        {"America/New_York", 1772953200, 2, 0, 3, 0, 0},    // 2026-03-08
        {"America/New_York", 1793512800, 1, 0, 2, 0, 120},  // 2026-11-01
    };
    if (!HaveZoneData("Europe/Berlin") || !HaveZoneData("America/New_York"))
        GTEST_SKIP() << "no time-zone data";
    SetRecordClock(&kZoneClock);
    SetDay(TIME_SCOPE_DIFF, kSunday);
    for (const Case &c : cases) {
        ScopedZone zone(c.zone);
        SetSegment(0, c.beginHour, c.beginMinute, c.endHour, c.endMinute, kSunday);
        int minutes = 0;
        for (g_wall = c.change - kAround; g_wall < c.change + kAround; g_wall += kStep) {
            if (CheckRecordStart() == 0) minutes += kStep / 60;
        }
        EXPECT_EQ(minutes, c.minutes) << c.zone << " " << c.change << " " << c.beginHour << ":"
                                      << c.beginMinute << "-" << c.endHour << ":" << c.endMinute;
    }
}

// Writes that fail with errno `g_writeError` (0: they pass).
int g_writeError = 0;
ssize_t RefusingWrite(int fd, const void *buf, size_t length) {
    if (g_writeError == 0) return PosixFileIo().write(fd, buf, length);
    errno = g_writeError;
    return -1;
}

// The schedule check publishes why recording is not due, and after a write
// the card refused it holds recording back, saying how the card is, until
// the records that ended the section reached the card.
TEST_F(RecordScheduleTest, StatesPublishedAndACardThatRefusedWritesHeldBack) {
    SetSegment(0, 0, 0, 24, 0);
    At(10, 0);
    RecordStatusSet(RecordState::kStopping, "an earlier test's state");
    SetDay(TIME_SCOPE_NULL);
    EXPECT_EQ(CheckRecordStart(), -1);
    EXPECT_EQ(RecordStatusState(), RecordState::kWaiting);
    EXPECT_NE(root_.ReadFile(kStatusFile).find("\"state\":\"waiting\""), std::string::npos);
    SetDay(TIME_SCOPE_ALL);
    unlink(root_.Under(kCardDevice).c_str());
    EXPECT_EQ(CheckRecordStart(), -1);
    EXPECT_EQ(RecordStatusState(), RecordState::kNoCard);
    root_.WriteFile(kCardDevice, "");
    ASSERT_EQ(CheckRecordStart(), 0);

    ASSERT_EQ(AV_RecordFileConfigParamGet(GetRecordConfigInfo(), GetFileInfoHead(), GetSectionInfoHead(), 1),
              0);
    ASSERT_EQ(LS_RecordInit(GetFileInfoHead(), 0), 0);
    FileIoOps refusing = PosixFileIo();
    refusing.write = RefusingWrite;
    SetFileIo(&refusing);
    g_writeError = EROFS;
    const Bytes key = Concat({Nal({0x67, 0x42}, 10, 1), Nal({0x65, 0x88}, 3000, 3)});
    AVDataInfo info{};
    info.AVDataLen = static_cast<int32_t>(key.size());
    EXPECT_EQ(libAVRecordWriteFrame(0, 0, key.data(), &info), -1);
    LS_RecordClose();
    EXPECT_EQ(CheckRecordStart(), -1);
    EXPECT_EQ(RecordStatusState(), RecordState::kCardReadOnly);
    g_writeError = EIO;
    EXPECT_EQ(CheckRecordStart(), -1);
    EXPECT_EQ(RecordStatusState(), RecordState::kCardFailing);
    g_writeError = 0;
    EXPECT_EQ(CheckRecordStart(), 0);
    EXPECT_EQ(LS_RecordCardError(), 0);
    SetFileIo(nullptr);
}
