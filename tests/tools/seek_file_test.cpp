#include "tools/seek_file.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "avrecord_lib/index_records.h"
#include "common/log.h"
#include "common/platform_paths.h"
#include "support/card_fixture.h"
#include "support/test_card_index.h"
#include "support/test_helpers.h"
#include "support/test_support.h"

namespace {

constexpr uint32_t kCrowdFirstFile = 5;
constexpr uint32_t kCrowdFiles = 9;
constexpr uint32_t kCrowdSections = 250;

uint32_t CrowdStart(uint32_t scanIndex) { return Local(15, 1) + scanIndex * 10; }

// The crafted card shared by the search cases.
void CraftCard(CraftedIndex &card) {
    card.Header(kCrowdFirstFile + kCrowdFiles);
    card.File(0, Local(10, 10), Local(10, 11), 1);
    card.Section(0, 1, Local(10, 10), Local(10, 11));
    // A section that ends at local midnight.
    card.File(1, Local(11, 23), Local(12, 0), 1);
    card.Section(1, 1, Local(11, 23), Local(12, 0));
    // A file without a span and a file without its magic: not searched.
    card.File(2, Local(13, 10), Local(13, 10), 1);
    card.Section(2, 1, Local(13, 10), Local(13, 10, 30));
    card.File(3, Local(13, 9), Local(13, 11), 1, 0);
    card.Section(3, 1, Local(13, 10), Local(13, 10, 30));
    // Equal starts, and a slot without its magic.
    card.File(4, Local(14, 8), Local(14, 9), 4);
    for (uint16_t s = 1; s <= 3; ++s) card.Section(4, s, Local(14, 8), Local(14, 8, 10 * s));
    card.Section(4, 4, Local(14, 8), Local(14, 8, 40), 0);
    // 2250 matching sections; the first file claims more than it can hold.
    for (uint32_t f = 0; f < kCrowdFiles; ++f) {
        uint32_t n = kCrowdFirstFile + f;
        card.File(n, CrowdStart(f * kCrowdSections), CrowdStart((f + 1) * kCrowdSections),
                  f == 0 ? 400 : 250);
        for (uint32_t s = 1; s <= kCrowdSections; ++s) {
            uint32_t start = CrowdStart(f * kCrowdSections + s - 1);
            card.Section(n, static_cast<uint16_t>(s), start, start + 5);
        }
    }
    card.EventSlot(0, Local(10, 10), 3);
    card.Event(0, 0, Local(10, 10), Local(10, 10, 10), 1);
    card.Event(0, 1, Local(10, 10, 20), Local(10, 10, 30), 4);
    card.Event(0, 2, Local(10, 10, 20), Local(10, 10, 30), 4, 0);
    card.EventSlot(1, Local(11, 23, 50), 1);
    card.Event(1, 0, Local(11, 23, 50), Local(12, 0), 8);
}

struct SeekCase {
    const char *name;
    uint16_t type;
    uint32_t start;
    uint32_t end;
    int result;
    std::vector<std::string> names;
};

std::vector<std::string> Names(const FileListInfo &list) {
    std::vector<std::string> names;
    for (int i = 0; i < list.s32FileNum; ++i) names.push_back(list.stFileList[i].szFileName);
    return names;
}

TEST(SeekFileTest, CraftedIndex) {
    ScopedZone zone("XST-2");  // two hours east of UTC: local and UTC days differ
    ScopedRoot root;
    CraftedIndex card(root);
    CraftCard(card);
    const SeekCase cases[] = {
        // Section 10:00-11:00 against four ranges.
        {"Covering", 2, Local(10, 9), Local(10, 12), 0, {"hi000000_000001.mp4"}},
        {"BeginsBefore", 2, Local(10, 10, 30), Local(10, 12), 0, {"hi000000_000001.mp4"}},
        {"RunsPastEnd", 2, Local(10, 9), Local(10, 10, 30), 0, {}},
        {"CoversWholeRange", 2, Local(10, 10, 15), Local(10, 10, 45), 0, {}},
        {"EndsAtRangeEnd", 2, Local(10, 10, 30), Local(10, 11), 0, {}},
        {"MidnightEnd", 2, Local(11, 22), Local(11, 23, 59, 59), 0, {"hi000001_000001.mp4"}},
        {"FilesNotSearched", 2, Local(13, 0), Local(13, 23), 0, {}},
        {"EqualStartsReversed",
         2,
         Local(14, 7),
         Local(14, 12),
         0,
         {"hi000004_000003.mp4", "hi000004_000002.mp4", "hi000004_000001.mp4"}},
        {"AlarmType1", 1, Local(10, 9), Local(10, 12), 0, {"he000000_000000.mp4"}},
        {"AlarmType4", 4, Local(10, 9), Local(10, 12), 0, {"he000000_000001.mp4"}},
        {"AlarmType8Midnight", 8, Local(11, 22), Local(11, 23, 59, 59), 0, {"he000001_000000.mp4"}},
        {"AlarmTooEarly", 8, Local(11, 22), Local(11, 23), 0, {}},
        {"OtherType", 3, Local(10, 9), Local(10, 12), -1, {}}};
    auto list = std::make_unique<FileListInfo>();
    for (const SeekCase &c : cases) {
        EXPECT_EQ(SeekFile(c.type, c.start, c.end, list.get()), c.result) << c.name;
        EXPECT_EQ(Names(*list), c.names) << c.name;
    }

    ASSERT_EQ(SeekFile(2, Local(10, 9), Local(10, 12), list.get()), 0);
    const FileListEntry &e = list->stFileList[0];
    EXPECT_EQ(e.u32StartTime, Local(10, 10));
    EXPECT_EQ(e.u32EndTime, Local(10, 11));
    EXPECT_EQ(e.u32FrameRate, 25u);
    EXPECT_EQ(e.u32FrameCount, 25u * 3600);
    EXPECT_EQ(e.u32FileSize, 1001u);

    ASSERT_EQ(SeekFile(8, Local(11, 22), Local(12, 1), list.get()), 0);
    EXPECT_EQ(list->stFileList[0].u32EndTime, Local(12, 0) - 1);
    EXPECT_EQ(list->stFileList[0].u32FrameRate, 15u);
    EXPECT_EQ(list->stFileList[0].u32FileSize, 500u);

    // 2250 matches: the first 2048 in index order are listed, sorted.
    ASSERT_EQ(SeekFile(2, Local(15, 0), Local(15, 23), list.get()), 0);
    ASSERT_EQ(list->s32FileNum, MAX_FILE_NUMBER);
    EXPECT_STREQ(list->stFileList[0].szFileName, "hi000005_000001.mp4");
    EXPECT_STREQ(list->stFileList[MAX_FILE_NUMBER - 1].szFileName, "hi000013_000048.mp4");
    for (int i = 1; i < list->s32FileNum; ++i) {
        ASSERT_LT(list->stFileList[i - 1].u32StartTime, list->stFileList[i].u32StartTime) << i;
    }
}

TEST(SeekFileTest, MidnightCorrectionUsesLocalTime) {
    ScopedZone zone("XST-2");
    EXPECT_EQ(SeekFileMidnightCorrected(Local(12, 0)), Local(12, 0) - 1);
    EXPECT_EQ(SeekFileMidnightCorrected(Local(12, 0, 0, 1)), Local(12, 0, 0, 1));
    // UTC midnight is 02:00 here.
    uint32_t utcMidnight = Local(12, 2);
    EXPECT_EQ(SeekFileMidnightCorrected(utcMidnight), utcMidnight);
    EXPECT_EQ(SeekFileMidnightCorrected(0), 0u);
}

// Error paths.
// A damaged header counting more files than the index has room for: the
// search reads the records the index can hold and no further.
TEST(SeekFileTest, SearchStaysWithinTheIndexRoom) {
    ScopedRoot root;
    CraftedIndex card(root);
    card.Header(0xFFFFFFFF);
    card.File(0, 10, 100, 1);
    card.Section(0, 1, 20, 30);
    MakeSparseFile(card.Index(), kIndexFileSize);
    auto list = std::make_unique<FileListInfo>();
    EXPECT_EQ(SeekFile(2, 0, 100, list.get()), 0);
    EXPECT_EQ(Names(*list), std::vector<std::string>{"hi000000_000001.mp4"});
}

TEST(SeekFileTest, Failures) {
    ScopedRoot root;
    auto list = std::make_unique<FileListInfo>();
    EXPECT_EQ(SeekFile(2, 0, 100, nullptr), -1);
    EXPECT_EQ(SeekFile(2, 0, 100, list.get()), -1);  // no index

    CraftedIndex card(root);
    card.Header(0, 0x12345678);
    EXPECT_EQ(SeekFile(2, 0, 100, list.get()), -1);  // bad header

    card.Header(0);
    list->s32FileNum = 7;
    EXPECT_EQ(SeekFile(3, 0, 100, list.get()), 0);  // no files, nothing to read
    EXPECT_EQ(list->s32FileNum, 0);
    EXPECT_EQ(SeekFile(1, 0, 100, list.get()), -1);  // no event file

    // An event slot that counts no events has no list to read: the search
    // fails.
    card.Header(1);
    card.EventSlot(0, 10, 0);
    EXPECT_EQ(SeekFile(1, 0, 100, list.get()), -1);
    card.EventSlot(0, 10, 1);
    card.Event(0, 0, 20, 30, 1);
    EXPECT_EQ(SeekFile(1, 0, 100, list.get()), 0);
    EXPECT_EQ(Names(*list), std::vector<std::string>{"he000000_000000.mp4"});

    // A read failure keeps what was found until then.
    card.Header(3);
    card.File(0, 10, 100, 1);
    card.Section(0, 1, 20, 30);
    card.File(1, 10, 100, 1);
    card.Section(1, 1, 40, 50);
    std::string index = ReadWholeFile(card.Index());
    WriteWholeFile(card.Index(), index.substr(0, SectionInfoHeadPosition(1, 1) + 10));
    EXPECT_EQ(SeekFile(2, 0, 100, list.get()), -1);
    EXPECT_EQ(Names(*list), std::vector<std::string>{"hi000000_000001.mp4"});
}

// Every line a search logs names the search's function, whichever helper
// (index open, file walk, event walk) wrote it.
TEST(SeekFileTest, LogLinesNameTheSearch) {
    ScopedRoot root;
    CraftedIndex card(root);
    card.Header(2);
    card.File(1, 10, 100, 1);
    card.EventSlot(0, 10, 2);
    card.Event(0, 0, 20, 30, 1);
    MakeSparseFile(card.Index(), kIndexFileSize);
    MakeSparseFile(card.Events(), kEventFileSize);
    LogEnable("test", 0);
    auto list = std::make_unique<FileListInfo>();
    testing::internal::CaptureStderr();
    EXPECT_EQ(SeekFile(2, 0, 100, list.get()), 0);  // file 0 has no record
    EXPECT_EQ(SeekFile(1, 0, 100, list.get()), 0);  // event 1 has no magic
    card.Header(0, 0x12345678);
    EXPECT_EQ(SeekFile(2, 0, 100, list.get()), -1);
    std::string log = testing::internal::GetCapturedStderr();
    for (const char *line :
         {"NO File", "m_u32AlarmEventSum", "End!!!!", "m_u32RecordFileSum", "chek file Head"})
        EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
    EXPECT_TRUE(LogNamesFunction(log, "SeekFile")) << log;
    for (const char *helper : {"SearchSections", "SearchEvents", "OpenIndex", "SeekFileOnCard"})
        EXPECT_FALSE(LogNamesFunction(log, helper)) << helper << "\n" << log;
}

}  // namespace
