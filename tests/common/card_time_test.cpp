#include "common/card_time.h"

#include <gtest/gtest.h>

#include <string>

#include "common/log.h"
#include "support/scoped_zone.h"

namespace {

constexpr uint32_t k2038Last = 0x7fffffffu;   // 2038-01-19 03:14:07 UTC
constexpr uint32_t k2038First = 0x80000000u;  // 2038-01-19 03:14:08 UTC
constexpr time_t kPastCard = static_cast<time_t>(UINT32_MAX) + 1;

std::string Utc(uint32_t card) {
    struct tm t {};
    if (CardTimeUtc(card, &t) == nullptr) return "none";
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %a", &t);
    return text;
}

struct tm Fields(int year, int month, int day, int hour, int minute, int second) {
    struct tm t {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    t.tm_isdst = -1;
    return t;
}

class CardTimeTest : public testing::Test {
protected:
    void SetUp() override {
        CardTimeResetForTest();
        LogEnable("test", 0);
    }
    void TearDown() override {
        CardTimeResetForTest();
        LogResetForTest();
    }
};

TEST_F(CardTimeTest, CardTimesWidenWithoutSignExtension) {
    EXPECT_EQ(CardTimeToTime(0), 0);
    EXPECT_EQ(CardTimeToTime(k2038Last), 2147483647LL);
    EXPECT_EQ(CardTimeToTime(k2038First), 2147483648LL);
    EXPECT_EQ(CardTimeToTime(UINT32_MAX), 4294967295LL);
    EXPECT_EQ(Utc(0), "1970-01-01 00:00:00 Thu");
    EXPECT_EQ(Utc(k2038Last), "2038-01-19 03:14:07 Tue");
    EXPECT_EQ(Utc(k2038First), "2038-01-19 03:14:08 Tue");
    EXPECT_EQ(Utc(UINT32_MAX), "2106-02-07 06:28:15 Sun");
}

TEST_F(CardTimeTest, TimesWithinTheRangeConvertBothWays) {
    for (time_t t : {time_t{0}, time_t{k2038Last}, time_t{k2038First}, time_t{UINT32_MAX}}) {
        uint32_t card = 12345;
        ASSERT_EQ(TimeToCardTime(t, &card), 0) << t;
        EXPECT_EQ(CardTimeToTime(card), t);
    }
}

TEST_F(CardTimeTest, LocalFieldsRoundTripAcrossBothBoundaries) {
    ScopedZone zone("UTC0");
    struct tm t = Fields(2038, 1, 19, 3, 14, 8);
    uint32_t card = 0;
    ASSERT_EQ(CardTimeFromLocal(&t, &card), 0);
    EXPECT_EQ(card, k2038First);
    t = Fields(2106, 2, 7, 6, 28, 15);
    ASSERT_EQ(CardTimeFromLocal(&t, &card), 0);
    EXPECT_EQ(card, UINT32_MAX);

    ScopedZone berlin("CET-1CEST,M3.5.0,M10.5.0/3");
    struct tm local {};
    ASSERT_NE(CardTimeLocal(k2038First, &local), nullptr);
    EXPECT_EQ(local.tm_year + 1900, 2038);
    EXPECT_EQ(local.tm_hour, 4);  // winter time, UTC+1
    EXPECT_EQ(local.tm_min, 14);
    EXPECT_EQ(local.tm_sec, 8);
    ASSERT_NE(CardTimeLocal(UINT32_MAX, &local), nullptr);
    EXPECT_EQ(local.tm_year + 1900, 2106);
    EXPECT_EQ(local.tm_hour, 7);
}

TEST_F(CardTimeTest, WallClockReadsAsACardTime) {
    uint32_t card = 0;
    ASSERT_EQ(CardTimeNow(&card), 0);
    EXPECT_NEAR(static_cast<double>(CardTimeToTime(card)), static_cast<double>(time(nullptr)), 2.0);
}

// Error paths: nothing outside the range is wrapped into it.

TEST_F(CardTimeTest, TimesOutsideTheRangeAreRefusedNotWrapped) {
    for (time_t t : {time_t{-1}, time_t{INT32_MIN}, kPastCard, kPastCard + k2038First, time_t{INT64_MIN}}) {
        uint32_t card = 777;
        EXPECT_FALSE(CardTimeInRange(t)) << t;
        EXPECT_EQ(TimeToCardTime(t, &card), -1) << t;
        EXPECT_EQ(card, 777u) << t;
    }
    ScopedZone zone("UTC0");
    uint32_t card = 777;
    struct tm after = Fields(2106, 2, 7, 6, 28, 16);
    EXPECT_EQ(CardTimeFromLocal(&after, &card), -1);
    struct tm before = Fields(1969, 12, 31, 23, 59, 59);
    EXPECT_EQ(CardTimeFromLocal(&before, &card), -1);
    EXPECT_EQ(card, 777u);
}

TEST_F(CardTimeTest, RefusalIsLoggedOnceUntilATimeInRangeIsStored) {
    uint32_t card = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(CardTimeForStore(kPastCard, &card, "section start", "AV_RecordFileConfigParamGet"), -1);
    EXPECT_EQ(CardTimeForStore(kPastCard + 60, &card, "section start", "AV_RecordFileConfigParamGet"), -1);
    EXPECT_EQ(CardTimeForStore(-5, &card, "section start", "AV_RecordFileConfigParamGet"), -1);
    std::string first = testing::internal::GetCapturedStderr();
    EXPECT_NE(first.find("AV_RecordFileConfigParamGet"), std::string::npos) << first;
    EXPECT_NE(first.find("section start 4294967296 is outside the card's time range"), std::string::npos)
        << first;
    EXPECT_EQ(first.find("CardTimeForStore"), std::string::npos) << first;
    EXPECT_EQ(first.find("4294967356"), std::string::npos) << first;

    testing::internal::CaptureStderr();
    EXPECT_EQ(CardTimeForStore(k2038First, &card, "section start", "AV_RecordFileConfigParamGet"), 0);
    EXPECT_EQ(card, k2038First);
    EXPECT_EQ(CardTimeForStore(-5, &card, "key frame", "AV_RecordFileConfigParamGet"), -1);
    std::string again = testing::internal::GetCapturedStderr();
    EXPECT_NE(again.find("key frame -5 is outside"), std::string::npos) << again;
    EXPECT_EQ(card, k2038First);
}

}  // namespace
