#include "card_reader/record_timeline.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/test_card_index.h"
#include "support/test_helpers.h"
#include "support/test_support.h"

namespace {

// A day on a crafted card: two sections (one ending at midnight), events of
// two alarm types, and recordings of the neighbouring days left out.
TEST(RecordTimelineTest, DayOfCardAsSvg) {
    ScopedZone zone("XST-2");
    TempDir dir;
    CraftedIndex card(dir.path() + "/");
    card.Header(3);
    card.File(0, Local(9, 23), Local(10, 1), 2);
    card.Section(0, 1, Local(9, 23), Local(10, 0));  // the day before
    card.Section(0, 2, Local(10, 0), Local(10, 1));
    card.File(1, Local(10, 12), Local(11, 0), 1);
    card.Section(1, 1, Local(10, 12), Local(11, 0));  // ends at midnight
    card.File(2, Local(11, 0), Local(11, 1), 1);
    card.Section(2, 1, Local(11, 0), Local(11, 1));  // the day after
    card.EventSlot(1, Local(10, 12), 2);
    card.Event(1, 0, Local(10, 12, 5), Local(10, 12, 6), 1);
    card.Event(1, 1, Local(10, 13), Local(10, 13, 1), 4);

    RecordTimeline timeline;
    ASSERT_EQ(RecordTimelineLoad(dir.path().c_str(), 2026, 3, 10, &timeline), 0);
    EXPECT_EQ(timeline.day, "2026-03-10");
    ASSERT_EQ(timeline.sections.size(), 2u);
    EXPECT_EQ(timeline.sections[0].name, "hi000000_000002.mp4");
    EXPECT_EQ(timeline.sections[1].name, "hi000001_000001.mp4");
    ASSERT_EQ(timeline.events.size(), 2u);
    EXPECT_EQ(timeline.events[0].alarmType, 1);
    EXPECT_EQ(timeline.events[1].alarmType, 4);

    std::string svg = RecordTimelineSvg(timeline);
    EXPECT_EQ(CountOf(svg, "<rect class=\"section\""), 2u);
    EXPECT_EQ(CountOf(svg, "<rect class=\"alarm alarm-type-1\""), 1u);
    EXPECT_EQ(CountOf(svg, "<rect class=\"alarm alarm-type-4\""), 1u);
    EXPECT_NE(svg.find("<title>hi000001_000001.mp4 12:00:00-23:59:59, file 1, section 1</title>"),
              std::string::npos);
    // Alarms go by what they watch, in the titles and the legend.
    EXPECT_NE(svg.find("<title>he000001_000001.mp4 13:00:00-13:01:00, file 1, event 1, motion</title>"),
              std::string::npos);
    for (const char *name : {">alarm input<", ">motion<", ">motion and alarm input<"})
        EXPECT_EQ(CountOf(svg, name), 1u) << name;
    EXPECT_EQ(AlarmTypeName(2), "alarm type 2");
    // Noon starts at the middle of the axis, the last section ends at its end.
    EXPECT_NE(svg.find("class=\"section\" x=\"655.00\" y=\"50\" width=\"554.99\""), std::string::npos) << svg;

    if (!HaveTool("python3")) GTEST_SKIP() << "python3 not installed";
    std::string file = dir.File("day.svg");
    WriteWholeFile(file, svg);
    std::string parsed = RunCommand(
        "python3 -c \"import sys, xml.etree.ElementTree as E; r = E.parse(sys.argv[1]).getroot(); "
        "n = '{http://www.w3.org/2000/svg}'; print(r.tag == n + 'svg', len(r.findall(n + 'rect')), "
        "len(r.findall('.//' + n + 'title')))\" " +
        file);
    EXPECT_EQ(parsed, "True 9 4\n");  // background, 4 bars, 4 legend boxes
}

// The days the clocks change: one tick per hour that passes, labelled with
// the local clock, and the repeated hour told apart in the bars' titles.
TEST(RecordTimelineTest, DaylightSavingDays) {
    if (!HaveZoneData("Europe/Berlin")) GTEST_SKIP() << "no time-zone data";
    ScopedZone zone("Europe/Berlin");
    constexpr uint32_t kSpringChange = 1774746000;  // 2026-03-29 01:00 UTC, 02:00 CET -> 03:00 CEST
    constexpr uint32_t kAutumnChange = 1792890000;  // 2026-10-25 01:00 UTC, 03:00 CEST -> 02:00 CET
    TempDir dir;
    CraftedIndex card(dir.path() + "/");
    card.Header(2);
    card.File(0, kSpringChange - 15, kSpringChange + 15, 1);
    card.Section(0, 1, kSpringChange - 15, kSpringChange + 15);
    card.File(1, kAutumnChange - 15, kAutumnChange + 15, 1);
    card.Section(1, 1, kAutumnChange - 15, kAutumnChange + 15);
    card.EventSlot(0, kSpringChange - 15, 1);
    card.Event(0, 0, kSpringChange - 10, kSpringChange + 5, 1);
    card.EventSlot(1, kAutumnChange - 15, 1);
    card.Event(1, 0, kAutumnChange - 10, kAutumnChange + 5, 4);

    auto hours = [](const std::string &svg) {
        std::string labels;
        const std::string open = "<text class=\"hour\"";
        for (size_t at = svg.find(open); at != std::string::npos; at = svg.find(open, at + 1)) {
            size_t from = svg.find('>', at) + 1;
            labels += svg.substr(from, svg.find('<', from) - from) + " ";
        }
        return labels;
    };
    RecordTimeline timeline;
    ASSERT_EQ(RecordTimelineLoad(dir.path().c_str(), 2026, 3, 29, &timeline), 0);
    std::string svg = RecordTimelineSvg(timeline);
    EXPECT_EQ(hours(svg), "00 01 03 04 05 06 07 08 09 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 ");
    EXPECT_NE(svg.find("2026-03-29 (23 hours): 1 sections, 1 alarm events"), std::string::npos);
    EXPECT_NE(svg.find("<title>hi000000_000001.mp4 01:59:45-03:00:15, file 0, section 1</title>"),
              std::string::npos);

    ASSERT_EQ(RecordTimelineLoad(dir.path().c_str(), 2026, 10, 25, &timeline), 0);
    EXPECT_EQ(timeline.dayEnd - timeline.dayStart, 25u * 3600);
    svg = RecordTimelineSvg(timeline);
    EXPECT_EQ(hours(svg), "00 01 02 02 03 04 05 06 07 08 09 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 ");
    EXPECT_NE(svg.find("2026-10-25 (25 hours): 1 sections, 1 alarm events"), std::string::npos);
    EXPECT_NE(svg.find("<title>hi000001_000001.mp4 02:59:45 CEST-02:00:15 CET, file 1, section 1</title>"),
              std::string::npos);
    // Three hours of 25 in: the bar starts 15 s before 3/25 of the axis.
    EXPECT_NE(svg.find("class=\"section\" x=\"233.0"), std::string::npos) << svg;
}

// Error paths.
TEST(RecordTimelineTest, MissingCard) {
    TempDir dir;
    RecordTimeline timeline;
    EXPECT_EQ(RecordTimelineLoad(dir.path().c_str(), 2026, 3, 10, &timeline), -1);
    EXPECT_EQ(RecordTimelineLoad(nullptr, 2026, 3, 10, &timeline), -1);
    // Sections without an event file: the alarm lane cannot be searched.
    CraftedIndex card(dir.path() + "/");
    card.Header(0);
    EXPECT_EQ(RecordTimelineLoad(dir.path().c_str(), 2026, 3, 10, &timeline), -1);
    card.EventSlot(0, 0, 0);
    EXPECT_EQ(RecordTimelineLoad(dir.path().c_str(), 2026, 3, 10, &timeline), 0);
    EXPECT_NE(RecordTimelineSvg(timeline).find("0 sections, 0 alarm events"), std::string::npos);
}

}  // namespace
