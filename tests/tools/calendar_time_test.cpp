#include "tools/calendar_time.h"

#include <gtest/gtest.h>

#include "tools/test_helpers.h"

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

}  // namespace
