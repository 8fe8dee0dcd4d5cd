#include "record/alarm_event_thread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "ipc/alarm_shm.h"
#include "record/record_run.h"
#include "record_run_fixture.h"

namespace {

constexpr uint32_t kMotionSource = 0;
constexpr uint8_t kMotionRecordType = 2;
constexpr uint8_t kMotionAlarmType = 4;

class AlarmEventThreadTest : public RecordRunTest {
protected:
    void SetUp() override {
        RecordRunTest::SetUp();
        if (IsSkipped()) return;
        libAlarmProcessInit();
        AlarmDataWrite(kMotionSource, 0);
        // Tuesday 10:00-11:00 watches motion; pre-record 10 s, delay 10 s.
        g_localSecondOfDay = 10 * 3600 + 30 * 60;
        auto &day = sys_->videoRecord.weekScope.dayScope[kTuesday];
        day.ucSocpeMode = TIME_SCOPE_DIFF;
        day.segment[1].beginHour.ucHour = 10;
        day.segment[1].endHour.ucHour = 11;
        day.segment[1].endHour.ucType = kMotionRecordType;
        FlagSet(g_u32RecordScopeIndex, 1);
        sys_->videoRecord.ucpreRecordTime = 2;
        sys_->videoRecord.ucrecordDelay = 0;
    }

    // Moves the clock on and gives the thread time for a few polls.
    static void Pass(uint32_t seconds) {
        Tick(seconds);
        usleep(250000);
    }

    AlarmEventInfo CardInfo(uint32_t fileNo) const {
        return CardRecord<AlarmEventInfo>(kEventFileName, AlarmEventInfoPosition(fileNo));
    }
    AlarmEventEntry CardEntry(uint32_t fileNo, uint32_t index) const {
        return CardRecord<AlarmEventEntry>(kEventFileName, AlarmEventEntryPosition(fileNo, index));
    }

    // One alarm of `length` seconds, `age` seconds into the section, with
    // the tail run out.
    void OneAlarm(uint32_t age, uint32_t length) {
        Pass(age);
        AlarmDataWrite(kMotionSource, 1);
        Pass(0);
        Pass(length);
        AlarmDataWrite(kMotionSource, 0);
        Pass(1);
        Pass(10);
    }
};

}  // namespace

TEST_F(AlarmEventThreadTest, AlarmBecomesAnEventWithPreRecordAndDelay) {
    StartRun();
    OneAlarm(60, 30);
    AlarmEventInfo info = CardInfo(0);
    AlarmEventEntry entry = CardEntry(0, 0);
    StopRun();
    EXPECT_EQ(info.m_u32HeadFlag, kAlarmEventInfoFlag);
    EXPECT_EQ(info.m_u32AlarmEventSum, 1u);
    EXPECT_EQ(info.m_u8AlarmType, kMotionAlarmType);
    EXPECT_EQ(entry.m_u32HeadFlag, kAlarmEventEntryFlag);
    EXPECT_EQ(entry.m_u32StartTime, kStartWall + 50);
    EXPECT_EQ(entry.m_u32EndTime, kStartWall + 101);
    EXPECT_EQ(entry.m_u8AlarmType, kMotionAlarmType);
}

TEST_F(AlarmEventThreadTest, RecycledFileStartsAFreshEventSlot) {
    StartRun();
    OneAlarm(60, 5);
    StopRun();
    EXPECT_EQ(CardInfo(0).m_u32AlarmEventSum, 1u);

    // The next run in the same file adds to its slot...
    StartRun();
    OneAlarm(30, 5);
    StopRun();
    EXPECT_EQ(CardInfo(0).m_u32AlarmEventSum, 2u);

    // ...unless the file was taken up afresh.
    FlagSet(g_bNewFileInfo, 1);
    StartRun();
    OneAlarm(30, 5);
    StopRun();
    EXPECT_EQ(CardInfo(0).m_u32AlarmEventSum, 1u);
    EXPECT_EQ(FlagGet(g_bNewFileInfo), 0u);
}

TEST_F(AlarmEventThreadTest, AllDayRunMarksNothing) {
    sys_->videoRecord.weekScope.dayScope[kTuesday].ucSocpeMode = TIME_SCOPE_ALL;
    StartRun();
    OneAlarm(60, 5);
    StopRun();
    EXPECT_NE(CardInfo(0).m_u32HeadFlag, kAlarmEventInfoFlag);
}

TEST_F(AlarmEventThreadTest, OpenEventIsStoredWhenTheRunEnds) {
    StartRun();
    Pass(20);
    AlarmDataWrite(kMotionSource, 1);
    Pass(0);
    Pass(5);
    StopRun();
    usleep(200000);  // the thread notices the end at its next poll
    AlarmEventEntry entry = CardEntry(0, 0);
    EXPECT_EQ(entry.m_u32HeadFlag, kAlarmEventEntryFlag);
    EXPECT_EQ(entry.m_u32StartTime, kStartWall + 10);
    EXPECT_EQ(entry.m_u32EndTime, 0u);
}
