#include "record/clock_range.h"

#include <gtest/gtest.h>

#include <string>

#include "common/log.h"
#include "record/record_clock.h"

namespace {

time_t g_wall = 0;
uint32_t g_uptime = 0;
time_t FakeWall() { return g_wall; }
uint32_t FakeUptime() { return g_uptime; }
const RecordClockOps kFakeClock = {SystemRecordClock().getTimeOfDay, FakeWall, FakeUptime,
                                   SystemRecordClock().localTime};

constexpr time_t kLastCardSecond = 4294967295;  // 2106-02-07 06:28:15 UTC

class ClockRangeTest : public testing::Test {
protected:
    void SetUp() override {
        SetRecordClock(&kFakeClock);
        ClockRangeResetForTest();
        LogEnable("test", 0);
        g_uptime = 1000;
    }
    void TearDown() override {
        SetRecordClock(nullptr);
        ClockRangeResetForTest();
        LogResetForTest();
    }
    // The answer at this wall time and uptime, and what it logged.
    bool At(time_t wall, uint32_t uptime, std::string *logged) {
        g_wall = wall;
        g_uptime = uptime;
        testing::internal::CaptureStderr();
        bool usable = RecordClockInCardRange("Main");
        *logged = testing::internal::GetCapturedStderr();
        return usable;
    }
};

TEST_F(ClockRangeTest, RecordsAcross2038AndUpToTheLastCardSecond) {
    std::string logged;
    for (time_t wall : {time_t{0}, time_t{2147483647}, time_t{2147483648}, kLastCardSecond}) {
        EXPECT_TRUE(At(wall, 1000, &logged)) << wall;
        EXPECT_EQ(logged, "") << wall;
    }
}

// Error path: past 2106 (or before 1970) nothing is recorded, with a line
// once a minute until the clock is set right.
TEST_F(ClockRangeTest, WaitsPast2106WithALineAMinute) {
    std::string logged;
    EXPECT_FALSE(At(kLastCardSecond + 1, 1000, &logged));
    EXPECT_NE(logged.find("Main"), std::string::npos) << logged;
    EXPECT_NE(
        logged.find("the clock reads 2106-02-07 06:28:16 UTC (4294967296), outside the card's time range "
                    "1970-01-01 00:00:00 to 2106-02-07 06:28:15 UTC: not recording until the clock is set"),
        std::string::npos)
        << logged;
    EXPECT_FALSE(At(kLastCardSecond + 30, 1030, &logged));
    EXPECT_EQ(logged, "");
    EXPECT_FALSE(At(kLastCardSecond + 59, 1059, &logged));
    EXPECT_EQ(logged, "");
    EXPECT_FALSE(At(kLastCardSecond + 61, 1060, &logged));
    EXPECT_NE(logged.find("2106-02-07 06:29:16 UTC"), std::string::npos) << logged;

    EXPECT_TRUE(At(1800000000, 1061, &logged));
    EXPECT_NE(logged.find("the clock reads 2027-01-15 08:00:00 UTC, within the card's time range again"),
              std::string::npos)
        << logged;
    EXPECT_TRUE(At(1800000001, 1062, &logged));
    EXPECT_EQ(logged, "");

    // A clock before 1970 is refused at once, however recent the last line.
    EXPECT_FALSE(At(-1, 1063, &logged));
    EXPECT_NE(logged.find("1969-12-31 23:59:59 UTC (-1)"), std::string::npos) << logged;
}

}  // namespace
