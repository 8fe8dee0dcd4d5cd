#include "record/alarm_event_logic.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

constexpr uint32_t kNoon = 1700000000;  // some noon, seconds since the epoch
constexpr uint8_t kPre10s = 2;
constexpr uint8_t kDelay10s = 0;
constexpr uint8_t kDelay5s = 1;
constexpr uint8_t kDelay60s = 4;

// Drives the tracker second by second with the alarm states a test sets.
class AlarmTimeline {
public:
    explicit AlarmTimeline(uint32_t sectionStart) {
        file_.m_u32HeadFlag = kFileInfoHeadFlag;
        file_.m_u32FileNo = 7;
        section_.m_u32HeadFlag = kSectionInfoHeadFlag;
        section_.m_u32StartTime = sectionStart;
        section_.m_u8FrameRate = 25;
        std::memset(alarms_, 0, sizeof alarms_);
    }

    void SetSource(uint32_t source, uint32_t state) { alarms_[source].Status = state; }

    // Runs turns from..to (inclusive, one per second); the section grows by
    // 25 frames of 4000 bytes a second. Returns the non-empty actions.
    std::vector<std::pair<uint32_t, AlarmAction>> Run(uint32_t from, uint32_t to) {
        std::vector<std::pair<uint32_t, AlarmAction>> actions;
        for (uint32_t t = from; t <= to; ++t) {
            section_.m_u32SectionSize += 100000;
            section_.m_u32VideoFrameSum += 25;
            AlarmTurn turn{t, recordType, alarms_, preRecordTime, recordDelay, &file_, &section_};
            AlarmAction action = tracker.Turn(turn);
            if (action != AlarmAction::kNone) actions.emplace_back(t, action);
        }
        return actions;
    }

    AlarmEventTracker tracker;
    uint32_t recordType = 2;  // watches source 0
    uint8_t preRecordTime = kPre10s;
    uint8_t recordDelay = kDelay10s;

private:
    FileInfoHead file_{};
    SectionInfoHead section_{};
    AlarmShmEntry alarms_[kAlarmSourceCount];
};

}  // namespace

TEST(AlarmEventLogicTest, PreRecordReachesBackButNotBeforeTheSection) {
    struct {
        uint32_t sectionAge;  // seconds of section before the alarm
        uint32_t expectedStart;
    } cases[] = {{60, kNoon - 10}, {10, kNoon - 10}, {4, kNoon - 4}, {0, kNoon}};
    for (const auto &c : cases) {
        AlarmTimeline timeline(kNoon - c.sectionAge);
        timeline.SetSource(0, 1);
        timeline.Run(kNoon, kNoon);
        EXPECT_EQ(timeline.tracker.entry().m_u32StartTime, c.expectedStart) << c.sectionAge;
        EXPECT_EQ(timeline.tracker.info().m_u32StartTime, c.expectedStart) << c.sectionAge;
    }
}

TEST(AlarmEventLogicTest, ThirtySecondAlarmWithTenSecondDelayIsOneFortySecondEvent) {
    AlarmTimeline timeline(kNoon - 60);
    timeline.SetSource(0, 1);
    EXPECT_TRUE(timeline.Run(kNoon, kNoon + 30).empty());
    timeline.SetSource(0, 0);
    // The tail is written at once (the alarm lasted over 20 s since the
    // event began) and again when the delay has run out.
    auto actions = timeline.Run(kNoon + 31, kNoon + 60);
    std::vector<std::pair<uint32_t, AlarmAction>> expected = {{kNoon + 31, AlarmAction::kFlushTail},
                                                              {kNoon + 40, AlarmAction::kClose}};
    EXPECT_EQ(actions, expected);

    const AlarmEventEntry &entry = timeline.tracker.entry();
    const AlarmEventInfo &info = timeline.tracker.info();
    EXPECT_EQ(entry.m_u32StartTime, kNoon - 10);
    EXPECT_EQ(entry.m_u32EndTime, kNoon + 40);
    EXPECT_EQ(entry.m_u16EventNo, 0);
    EXPECT_EQ(entry.m_u32FrameSum, 40u * 25);
    EXPECT_EQ(entry.m_u32DataSize, 40u * 100000);
    EXPECT_EQ(info.m_u32AlarmEventSum, 1u);
    EXPECT_EQ(info.m_u32EndTime, kNoon + 40);
    EXPECT_EQ(info.m_u32Reserved0, kNoon + 40);  // end of the last closed event
}

TEST(AlarmEventLogicTest, AlarmReturningWithinTheDelayKeepsOneEvent) {
    AlarmTimeline timeline(kNoon - 60);
    timeline.SetSource(0, 1);
    timeline.Run(kNoon, kNoon + 2);
    timeline.SetSource(0, 0);
    EXPECT_TRUE(timeline.Run(kNoon + 3, kNoon + 7).empty());
    timeline.SetSource(0, 1);
    timeline.Run(kNoon + 8, kNoon + 9);
    timeline.SetSource(0, 0);
    auto actions = timeline.Run(kNoon + 10, kNoon + 30);
    ASSERT_EQ(actions.size(), 1u);
    EXPECT_EQ(actions[0], std::make_pair(kNoon + 19, AlarmAction::kClose));
    EXPECT_EQ(timeline.tracker.info().m_u32AlarmEventSum, 1u);
    EXPECT_EQ(timeline.tracker.entry().m_u32StartTime, kNoon - 10);
}

TEST(AlarmEventLogicTest, NextEventStartsWhereThePreviousTailEnded) {
    AlarmTimeline timeline(kNoon - 600);
    timeline.recordDelay = kDelay5s;
    timeline.SetSource(0, 1);
    timeline.Run(kNoon, kNoon + 10);
    timeline.SetSource(0, 0);
    auto actions = timeline.Run(kNoon + 11, kNoon + 19);
    ASSERT_EQ(actions.size(), 1u);
    EXPECT_EQ(actions[0].first, kNoon + 15);

    timeline.SetSource(0, 1);
    timeline.Run(kNoon + 20, kNoon + 20);  // pre-record would reach back to +10
    EXPECT_EQ(timeline.tracker.entry().m_u32StartTime, kNoon + 15);
    EXPECT_EQ(timeline.tracker.entry().m_u16EventNo, 1);
    EXPECT_EQ(timeline.tracker.info().m_u32AlarmEventSum, 2u);
    EXPECT_EQ(timeline.tracker.info().m_u32StartTime, kNoon - 10);
}

TEST(AlarmEventLogicTest, LongTailIsWrittenEveryTwentySeconds) {
    AlarmTimeline timeline(kNoon - 600);
    timeline.recordDelay = kDelay60s;
    timeline.SetSource(0, 1);
    timeline.Run(kNoon, kNoon);
    timeline.SetSource(0, 0);
    auto actions = timeline.Run(kNoon + 1, kNoon + 70);
    std::vector<std::pair<uint32_t, AlarmAction>> expected = {{kNoon + 20, AlarmAction::kFlushTail},
                                                              {kNoon + 40, AlarmAction::kFlushTail},
                                                              {kNoon + 60, AlarmAction::kClose}};
    EXPECT_EQ(actions, expected);
}

TEST(AlarmEventLogicTest, SegmentRecordTypeSelectsSourceAndAlarmType) {
    struct {
        uint32_t recordType;
        std::vector<uint32_t> activeSources;
        bool marks;
        uint8_t alarmType;
    } cases[] = {
        {1, {2}, true, 1},         {1, {0}, false, 0},        {2, {0}, true, 4},  {2, {2}, false, 0},
        {3, {0, 2}, true, 8},      {3, {0}, false, 0},        {3, {2}, false, 0}, {3, {14}, true, 8},
        {0, {0, 2, 14}, false, 0}, {7, {0, 2, 14}, false, 0},
    };
    for (const auto &c : cases) {
        AlarmTimeline timeline(kNoon - 60);
        timeline.recordType = c.recordType;
        for (uint32_t source : c.activeSources) timeline.SetSource(source, 1);
        timeline.Run(kNoon, kNoon + 1);
        const AlarmEventInfo &info = timeline.tracker.info();
        EXPECT_EQ(info.m_u32HeadFlag == kAlarmEventInfoFlag, c.marks) << c.recordType;
        if (c.marks) {
            EXPECT_EQ(timeline.tracker.entry().m_u8AlarmType, c.alarmType) << c.recordType;
        }
    }
}

TEST(AlarmEventLogicTest, PreRecordIndexTenKeepsTheLastIndexAndStartsAtTheSection) {
    AlarmTimeline timeline(kNoon - 600);
    timeline.preRecordTime = 3;  // 15 s
    timeline.Run(kNoon - 5, kNoon - 5);
    timeline.preRecordTime = kPreRecordKeepIndex;
    timeline.SetSource(0, 1);
    timeline.Run(kNoon, kNoon);
    EXPECT_EQ(timeline.tracker.entry().m_u32StartTime, kNoon - 600);
}
