#include "card_reader/recording_reader.h"

#include <gtest/gtest.h>

#include <string>

#include "support/card_fixture.h"
#include "support/test_card_index.h"
#include "support/test_support.h"

namespace {

TEST(RecordingReaderTest, Names) {
    struct Case {
        const char *name;
        int result;
        bool event = false;
        uint32_t file = 0;
        uint32_t number = 0;
    } cases[] = {{"hi000012_000250.mp4", 0, false, 12, 250},
                 {"he000001_000003.mp4", 0, true, 1, 3},
                 {"hx000001_000003.mp4", -1},
                 {"hi00001_0000003.mp4", -1},
                 {"hi000001_000003.mp5", -1},
                 {"hi000001_000003.mp4x", -1},
                 {"hi000001-000003.mp4", -1},
                 {"", -1}};
    for (const Case &c : cases) {
        RecordingSpan span{};
        ASSERT_EQ(RecordingParseName(c.name, &span), c.result) << c.name;
        if (c.result != 0) continue;
        EXPECT_EQ(span.bEvent, c.event) << c.name;
        EXPECT_EQ(span.u32FileNo, c.file) << c.name;
        EXPECT_EQ(span.u32Number, c.number) << c.name;
    }
}

// A section, an event inside it, and the records the names point at.
TEST(RecordingReaderTest, LocateAndItsFailures) {
    TempDir dir;
    std::string card = dir.path() + "/";
    CraftedIndex index(card);
    index.Header(2);
    index.File(0, 100, 200, 2);
    index.Section(0, 1, 100, 150);
    index.Section(0, 2, 150, 200);
    index.EventSlot(0, 160, 2);
    index.Event(0, 0, 160, 170, 1);
    index.Event(0, 1, 300, 310, 1);  // in no section
    MakeSparseFile(MediaFilePath(card, 0), 4096);

    RecordingSpan span;
    std::string reason;
    ASSERT_EQ(RecordingParseName("he000000_000000.mp4", &span), 0);
    ASSERT_EQ(RecordingLocate(card.c_str(), &span, &reason), 0) << reason;
    EXPECT_EQ(span.stSection.m_u16SectionNo, 2);
    EXPECT_EQ(span.u32FromTime, 160u);
    EXPECT_EQ(span.u32ToTime, 170u);
    EXPECT_EQ(span.u32DataEnd - span.u32DataBegin, 1002u);  // no record file header at offset 0

    struct Failure {
        const char *name;
        const char *reason;
    } failures[] = {{"hi000000_000003.mp4", "media file 0 has no section 3"},
                    {"hi000001_000001.mp4", "media file 1 holds no recording"},
                    {"hi000002_000001.mp4", "media file 2 holds no recording"},
                    {"he000000_000002.mp4", "media file 0 has no alarm event 2"},
                    {"he000000_000001.mp4", "no section of media file 0 holds the event's start 300"}};
    for (const Failure &f : failures) {
        ASSERT_EQ(RecordingParseName(f.name, &span), 0);
        EXPECT_EQ(RecordingLocate(card.c_str(), &span, &reason), -1) << f.name;
        EXPECT_EQ(reason, f.reason) << f.name;
    }
    ASSERT_EQ(RecordingParseName("hi000000_000001.mp4", &span), 0);
    EXPECT_EQ(RecordingLocate((dir.path() + "/none").c_str(), &span, &reason), -1);
    // Unreadable program stream: the sparse media file holds only zeros.
    ASSERT_EQ(RecordingLocate(card.c_str(), &span, &reason), 0);
    int frames = 0;
    EXPECT_EQ(RecordingReadFrames(
                  card.c_str(), span, [&](const RecordingFrame &) { return ++frames > 0; }, &reason),
              -1);
    EXPECT_EQ(frames, 0);
    EXPECT_EQ(reason, "unreadable frame at offset 0 of media file 0");
}

}  // namespace
