#include "card_reader/index_check.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_config.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "support/card_fixture.h"
#include "support/card_recorder.h"
#include "support/test_support.h"

namespace {

std::string Le32(uint32_t value) { return std::string(reinterpret_cast<const char *>(&value), 4); }

// A card with three media files: file 0 holds two sections with key frames
// and one alarm event, the others are unused.
class IndexCheckTest : public testing::Test {
protected:
    void SetUp() override {
        dir_ = std::make_unique<TempDir>();
        card_ = dir_->path() + "/";
        MakeSparseCard(card_, 3);
        MkfsCapacityInfo config = {};
        config.m_u32VideoFileNum = 3;
        ASSERT_EQ(AV_RecordFileConfigSet((card_ + kIndexFileName).c_str(), &config), 0);
        CardRecorder recorder(card_);
        for (uint32_t section = 0; section < 2; ++section) {
            uint32_t t = 1000 + 100 * section;
            ASSERT_TRUE(recorder.StartSection(t));
            for (uint32_t frame = 0; frame < 6; ++frame) {
                ASSERT_TRUE(recorder.WriteFrame(t + frame, 500 + frame, frame % 3 == 0));
            }
            recorder.EndSection();
        }
        int fd = AVFileOpen((card_ + kEventFileName).c_str(), kAVFileModeReadWrite);
        AlarmEventInfo info = {};
        AlarmEventEntry entry;
        AV_AlarmEventFileInfoInit(&info, 0, 1001, 1);
        AV_AlarmEventEntryInit(&info, &entry, 1001, 1);
        AV_AlarmEventFileInfoNextEvent(&info);
        ASSERT_EQ(AV_AlarmEventFileInfoWrite(fd, 0, &info), 0);
        ASSERT_EQ(AV_AlarmEventEntryWrite(fd, &info, &entry), 0);
        AVFileClose(fd);
    }
    std::vector<IndexProblem> Check(int expected = 0) {
        std::vector<IndexProblem> problems;
        EXPECT_EQ(CheckCardIndex(card_, &problems), expected);
        return problems;
    }
    std::string Index() const { return card_ + kIndexFileName; }

    std::unique_ptr<TempDir> dir_;
    std::string card_;
};

TEST_F(IndexCheckTest, RecordedCardIsConsistent) {
    std::vector<IndexProblem> problems = Check();
    for (const IndexProblem &problem : problems) ADD_FAILURE() << FormatIndexProblem(problem);

    CardIndex index;
    std::string reason;
    ASSERT_EQ(LoadCardIndex(card_, &index, &reason), 0);
    ASSERT_EQ(index.files.size(), 3u);
    EXPECT_EQ(index.files[0].m_u32KeyFrameSum, 4u);
    EXPECT_EQ(index.files[1].m_u32HeadFlag, 0u);
}

// Each damage to the index is found and named.
TEST_F(IndexCheckTest, FindsEachKindOfDamage) {
    const uint32_t file0 = FileInfoHeadPosition(0);
    const uint32_t section1 = SectionInfoHeadPosition(0, 1);
    const uint32_t section2 = SectionInfoHeadPosition(0, 2);
    struct Case {
        const char *damage;
        std::function<void()> apply;
        const char *expected;  // part of the problem text
    };
    const std::vector<Case> cases = {
        {"used count", [&] { WriteFileAt(Index(), 0x18, Le32(4)); },
         "header: m_u32RecordFileUsed 4 exceeds 3"},
        {"current file", [&] { WriteFileAt(Index(), 0x1C, Le32(3)); }, "header: current file 3"},
        {"space size", [&] { WriteFileAt(Index(), 0x0C, Le32(0)); }, "header: m_u32RecordSpaceSize"},
        {"file number", [&] { WriteFileAt(Index(), file0 + 4, Le32(2)); }, "file 0: record names file 2"},
        {"section count", [&] { WriteFileAt(Index(), file0 + 0x18, Le32(0)); }, "file 0: section count 0"},
        {"file key frames", [&] { WriteFileAt(Index(), file0 + 0x1C, Le32(5)); }, "key frames, the file 5"},
        {"data size", [&] { WriteFileAt(Index(), file0 + 0x10, Le32(0xFC00004)); },
         "reaches the key-frame table"},
        {"section gap", [&] { WriteFileAt(Index(), section2 + 0x10, Le32(3020)); },
         "file 0 section 2: starts at"},
        {"section size", [&] { WriteFileAt(Index(), section2 + 0x14, Le32(0x10000)); }, "section 2: data"},
        {"section number", [&] { WriteFileAt(Index(), section1 + 0x0E, std::string("\x05\x00", 2)); },
         "section 1: numbered 5"},
        {"section magic", [&] { WriteFileAt(Index(), section1, Le32(0)); }, "section 1: no section record"},
        {"key-frame target", [&] { WriteFileAt(MediaFilePath(card_, 0), 0xFC00000 + 20 + 0x0C, Le32(1)); },
         "holds no pack header"},
        {"key-frame magic", [&] { WriteFileAt(MediaFilePath(card_, 0), 0xFC00000, Le32(0)); },
         "entry 0 has no magic"},
        {"key-frame outside", [&] { WriteFileAt(MediaFilePath(card_, 0), 0xFC00000 + 0x0C, Le32(0x100000)); },
         "outside the section"},
        {"frame rate out of range", [&] { WriteFileAt(Index(), section1 + 0x28, std::string("\xE6", 1)); },
         "section 1: frame rate 230 fps"},
        // 6 frames in 12 s cannot be 25 fps.
        {"frame rate against frames",
         [&] {
             WriteFileAt(Index(), section1 + 0x08, Le32(1012));
             WriteFileAt(Index(), section1 + 0x28, std::string("\x19", 1));
         },
         "section 1: frame rate 25 fps, but 6 video frames in 12 s (about 1 fps)"},
        {"media file", [&] { unlink(MediaFilePath(card_, 2).c_str()); }, "file 2: media file missing"},
        {"event entry",
         [&] { WriteFileAt(card_ + kEventFileName, 0x100000 + 0x16, std::string("\x07\x00", 2)); },
         "alarm event 0 is not an entry"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.damage);
        SetUp();  // a fresh consistent card for each
        c.apply();
        std::vector<IndexProblem> problems = Check();
        bool found = false;
        for (const IndexProblem &problem : problems) {
            found = found || FormatIndexProblem(problem).find(c.expected) != std::string::npos;
        }
        EXPECT_TRUE(found) << "no problem mentions \"" << c.expected << "\"";
    }
}

// A section record that is not its slot's (magic, number or file off) is
// named by the check and refused alike by the recovery and by the read
// commands' warning, which once looked at the magic and number only.
TEST_F(IndexCheckTest, SectionRecordNotTheSlotsIsJudgedAlike) {
    const uint32_t section1 = SectionInfoHeadPosition(0, 1);
    struct Case {
        const char *damage;
        uint32_t at;
        std::string bytes;
        const char *expected;
    };
    const std::vector<Case> cases = {
        {"magic", section1, Le32(0), "section 1: no section record"},
        {"number", section1 + 0x0E, std::string("\x05\x00", 2), "section 1: numbered 5"},
        {"file", section1 + 0x0C, std::string("\x02\x00", 2), "section 1: names file 2"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.damage);
        SetUp();
        SectionInfoHead record;
        std::string bytes = ReadFileAt(Index(), section1, sizeof record);
        ASSERT_EQ(bytes.size(), sizeof record);
        std::memcpy(&record, bytes.data(), sizeof record);
        EXPECT_EQ(SectionRecordDamage(record, 0, 1), "");
        WriteFileAt(Index(), c.at, c.bytes);
        bytes = ReadFileAt(Index(), section1, sizeof record);
        std::memcpy(&record, bytes.data(), sizeof record);
        std::string damage = SectionRecordDamage(record, 0, 1);
        EXPECT_NE(damage, "");
        // The check reports the same words, once, for that section.
        size_t named = 0;
        for (const IndexProblem &problem : Check())
            named += FormatIndexProblem(problem).find(c.expected) != std::string::npos;
        EXPECT_EQ(named, 1u) << "problems naming \"" << c.expected << "\"";
        EXPECT_NE(std::string("file 0 section 1: ").append(damage).find(c.expected), std::string::npos)
            << damage;
    }
}

// Error paths: an unusable index is one problem and -1.
TEST_F(IndexCheckTest, UnreadableIndexIsOneProblem) {
    WriteFileAt(Index(), 0, Le32(0));
    std::vector<IndexProblem> problems = Check(-1);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_NE(problems[0].text.find("no valid index header"), std::string::npos);
    unlink(Index().c_str());
    problems = Check(-1);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(FormatIndexProblem(problems[0]).rfind("header: cannot open", 0), 0u);
}

}  // namespace
