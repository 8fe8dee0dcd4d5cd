#include "tools/calendar_time.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/test_helpers.h"

namespace {

TEST(CalendarTimeTest, TimeArguments) {
    ScopedZone zone("XST-2");
    struct Case {
        const char *text;
        bool ok;
        uint32_t seconds;
    } cases[] = {{"0", true, 0},
                 {"4294967295", true, 4294967295u},
                 {"4294967296", false, 0},
                 {"2026-03-10T12:00:00", true, 1773136800u},  // 10:00 UTC
                 {"2026-02-30T12:00:00", false, 0},
                 {"2026-03-10T24:00:00", false, 0},
                 {"2026-03-10 12:00:00", false, 0},
                 {"2026-03-10T12:00:00Z", false, 0},
                 {"", false, 0},
                 {"-5", false, 0}};
    for (const Case &c : cases) {
        uint32_t seconds = 0;
        EXPECT_EQ(ParseTimeArgument(c.text, &seconds), c.ok) << c.text;
        if (c.ok) {
            EXPECT_EQ(seconds, c.seconds) << c.text;
        }
    }
    DateTime date{};
    EXPECT_TRUE(ParseDate("2028-02-29", &date));
    EXPECT_EQ(date.day, 29);
    EXPECT_FALSE(ParseDate("2026-02-29", &date));
    EXPECT_FALSE(ParseDate("2026-03-10x", &date));
    EXPECT_FALSE(ParseTimeArgument(nullptr, nullptr));
}

// The days the clocks change, in a zone that changes at 01:00 UTC and one
// that changes at 02:00 local time: the length of the day, where its clock
// changes, and what a time of the skipped or repeated hour means.
TEST(CalendarTimeTest, DaylightSavingDays) {
    struct Day {
        const char *zone;
        DateTime date;
        int64_t midnight;   // local midnight starting the day, UTC
        uint32_t change;    // the moment the clocks change, UTC
        int hours;          // length of the day
        const char *zones;  // abbreviations before and after
    } days[] = {{"Europe/Berlin", {2026, 3, 29, 0, 0, 0, 0}, 1774738800, 1774746000, 23, "CET CEST"},
                {"Europe/Berlin", {2026, 10, 25, 0, 0, 0, 0}, 1792879200, 1792890000, 25, "CEST CET"},
                {"America/New_York", {2026, 3, 8, 0, 0, 0, 0}, 1772946000, 1772953200, 23, "EST EDT"},
                {"America/New_York", {2026, 11, 1, 0, 0, 0, 0}, 1793505600, 1793512800, 25, "EDT EST"}};
    if (!HaveZoneData("Europe/Berlin") || !HaveZoneData("America/New_York"))
        GTEST_SKIP() << "no time-zone data";
    for (const Day &d : days) {
        ScopedZone zone(d.zone);
        SCOPED_TRACE(std::string(d.zone) + " " + std::to_string(d.date.month));
        DateTime next = d.date;
        next.day += 1;
        EXPECT_EQ(LocalSeconds(d.date), d.midnight);
        EXPECT_EQ(LocalSeconds(next) - d.midnight, d.hours * 3600);
        std::vector<LocalClockSpan> spans = LocalClockSpans(d.midnight, LocalSeconds(next) - 1);
        ASSERT_EQ(spans.size(), 2u);
        EXPECT_EQ(spans[0].from, d.midnight);
        EXPECT_EQ(spans[1].from, d.change);
        EXPECT_EQ(spans[1].offset - spans[0].offset, d.hours == 23 ? 3600 : -3600);
        EXPECT_EQ(spans[0].zone + " " + spans[1].zone, d.zones);
        EXPECT_EQ(LocalClockSpans(d.change, d.change + 3600).size(), 1u);
        EXPECT_EQ(LocalClockSpans(d.change - 1, d.change).size(), 2u);

        // The hour before the change on the clock: skipped in spring,
        // shown twice in autumn.
        DateTime last = LocalDateTime(d.change - 1);  // 01:59:59 in spring, 02:59:59 in autumn
        char text[32];
        snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:30:00", last.year, last.month, last.day,
                 d.hours == 23 ? last.hour + 1 : last.hour);
        uint32_t parsed = 0;
        if (d.hours == 23) {
            EXPECT_FALSE(ParseTimeArgument(text, &parsed)) << text << " is not on the clock";
        } else {
            ASSERT_TRUE(ParseTimeArgument(text, &parsed)) << text;
            EXPECT_EQ(parsed, d.change - 1800) << "the first of the two is meant";
            EXPECT_TRUE(LocalTimeRepeats(parsed));
            EXPECT_TRUE(LocalTimeRepeats(parsed + 3600));
            EXPECT_FALSE(LocalTimeRepeats(parsed + 7200));
            EXPECT_FALSE(LocalTimeRepeats(parsed - 3600));
            std::string first = LocalTimeText(parsed), second = LocalTimeText(parsed + 3600);
            EXPECT_EQ(first.substr(0, 19), second.substr(0, 19));
            EXPECT_EQ(first.substr(20) + " " + second.substr(20), d.zones);
            EXPECT_EQ(LocalTimeText(parsed + 7200).size(), 19u);
        }
    }
}

}  // namespace
