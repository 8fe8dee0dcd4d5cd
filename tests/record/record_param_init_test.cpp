#include "record/record_param_init.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_section.h"
#include "common/platform_paths.h"
#include "record/record_flags.h"
#include "support/card_fixture.h"
#include "support/test_support.h"

namespace {

constexpr uint32_t kMediaFiles = 4;

class RecordParamInitTest : public testing::Test {
protected:
    void SetUp() override {
        FlagSet(g_bIndexLoaded, 0);
        FlagSet(g_bNewFileInfo, 0);
        card_ = root_.Under(kCardMountPoint);
        MakeDirectories(card_);
        MakeSparseCard(card_, kMediaFiles);
    }

    // Writes a valid header with current file 2 holding dataSize bytes
    // (in one section when section is given).
    void WriteIndex(uint32_t dataSize, const SectionInfoHead *section = nullptr, uint32_t used = 0) {
        RecordConfigInfo info{};
        AV_RecordConfigInfoInit(&info, 0, kMediaFiles);
        uint32_t current = 2;
        info.m_u32FileInfoHeadNo = current;
        info.m_u32RecordFileUsed = used;
        WriteFileAt(Index(), 0, RecordBytes(info));
        FileInfoHead file{};
        AV_RecordFileInfoHeadInit(&info, &file, 1700000000, 1);
        file.m_u32DataSize = dataSize;
        WriteFileAt(Index(), FileInfoHeadPosition(current), RecordBytes(file));
        if (section != nullptr)
            WriteFileAt(Index(), SectionInfoHeadPosition(current, 1), RecordBytes(*section));
    }

    std::string Index() const { return card_ + kIndexFileName; }

    // Section 1 of file 2, from 1700000000 to endTime, of size bytes.
    static SectionInfoHead FirstSection(uint32_t size, uint32_t endTime) {
        FileInfoHead file{};
        file.m_u32FileNo = 2;
        file.m_u32RecordSectionSum = 1;
        SectionInfoHead section{};
        AV_RecordSectionInfoHeadInit(&file, &section, 1700000000, 1, 1);
        section.m_u32SectionSize = size;
        section.m_u32EndTime = endTime;
        return section;
    }

    ScopedRoot root_;
    std::string card_;
};

}  // namespace

TEST_F(RecordParamInitTest, UnusableIndexRefusesRecording) {
    EXPECT_EQ(AVRecordParamInit(1), -1);  // all-zero header
    WriteFileAt(Index(), 0, "SIHF\x02");  // wrong version
    EXPECT_EQ(AVRecordParamInit(1), -1);
    RemoveTree(card_);
    EXPECT_EQ(AVRecordParamInit(1), -1);  // no index file
    EXPECT_EQ(FlagGet(g_bIndexLoaded), 0u);
}

TEST_F(RecordParamInitTest, LoadsOnceThenTrustsTheRecordsInMemory) {
    WriteIndex(4096);
    ASSERT_EQ(AVRecordParamInit(0), 0);
    EXPECT_EQ(FlagGet(g_bIndexLoaded), 1u);
    EXPECT_EQ(GetRecordConfigInfo()->m_u32FileInfoHeadNo, 2u);
    EXPECT_EQ(GetFileInfoHead()->m_u32FileNo, 2u);
    EXPECT_EQ(GetFileInfoHead()->m_u32DataSize, 4096u);
    EXPECT_EQ(FlagGet(g_bNewFileInfo), 0u);

    // A damaged index on the card is not looked at again.
    WriteFileAt(Index(), 0, std::string(16, '\0'));
    EXPECT_EQ(AVRecordParamInit(0), 0);
    // ...until the card is taken as gone.
    FlagSet(g_bIndexLoaded, 0);
    EXPECT_EQ(AVRecordParamInit(0), -1);
}

TEST(SDCardMountCheckTest, LooksForTheCardAtTheStartOfTheFirstMountLine) {
    struct {
        const char *mounts;  // nullptr: no mount table
        int mounted;
    } cases[] = {
        {"/dev/mmcblk1p1 /media/SDCard vfat rw 0 0\n", 1},
        {"proc /proc proc rw 0 0\n/dev/mmcblk1p1 /media/SDCard vfat rw 0 0\n", 1},
        {"/dev/sda1 /media/mmcdata vfat rw 0 0\n", 0},  // "mmc" past the first 16 bytes
        {"/dev/sda1 / ext4 rw 0 0\n", 0},
        {nullptr, 0},
    };
    for (const auto &c : cases) {
        ScopedRoot root;
        if (c.mounts != nullptr) root.WriteFile(kMountTable, c.mounts);
        EXPECT_EQ(SDCardMountCheck(), c.mounted) << (c.mounts ? c.mounts : "no table");
    }
}

// A daemon killed between a frame's section record and its file record
// leaves the file one frame behind; the next section starts behind the
// last one's data, not inside it.
TEST_F(RecordParamInitTest, FileRecordCatchesUpWithItsLastSection) {
    SectionInfoHead section = FirstSection(0x40507, 1700000009);
    section.m_u32KeyFrameSum = 5;
    WriteIndex(0x403b9, &section);
    ASSERT_EQ(AVRecordParamInit(0), 0);
    EXPECT_EQ(GetFileInfoHead()->m_u32DataSize, 0x40507u);
    EXPECT_EQ(GetFileInfoHead()->m_u32EndTime, 1700000009u);
    EXPECT_EQ(GetFileInfoHead()->m_u32KeyFrameSum, 5u);
    SectionInfoHead next{};
    AV_RecordSectionInfoHeadInit(GetFileInfoHead(), &next, 1700000010, 1, 1);
    EXPECT_EQ(next.m_u32SectionOffset, 0x40507u);

    // A file already up to date, or ahead, stays as it is.
    FlagSet(g_bIndexLoaded, 0);
    WriteIndex(0x50000, &section);
    ASSERT_EQ(AVRecordParamInit(0), 0);
    EXPECT_EQ(GetFileInfoHead()->m_u32DataSize, 0x50000u);
}

// A power cut or a kill in the turn in which the current file became full
// leaves the header naming that file: the next daemon moves on to the next
// file as the run's end would have, card-full rule included, and never
// starts the full file again over its recordings.
TEST_F(RecordParamInitTest, FullCurrentFileOnTheCardIsLeftForTheNextFile) {
    struct {
        uint32_t dataSize;  // of the file record on the card
        uint32_t used;      // files used before
        uint8_t cover;
        int result;
        uint32_t nextFile;  // the file the next section starts
    } cases[] = {
        {kMediaFileFullSize, 0, 0, 0, 3},
        {kMediaFileFullSize + 0x100, 2, 1, 0, 3},
        {kMediaFileFullSize, kMediaFiles - 1, 0, -1, 0},  // now every file is used
        {kMediaFileFullSize, kMediaFiles - 1, 1, 0, 3},   // ...and overwritten in turn
        {kMediaFileFullSize - 1, 0, 0, 0, 2},             // room for one more byte
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "size " << c.dataSize << " used " << c.used << " cover " << int{c.cover});
        FlagSet(g_bIndexLoaded, 0);
        FlagSet(g_bNewFileInfo, 0);
        WriteIndex(c.dataSize, nullptr, c.used);
        ASSERT_EQ(AVRecordParamInit(c.cover), c.result);
        if (c.result != 0) continue;
        bool moved = c.nextFile != 2;
        EXPECT_EQ(FlagGet(g_bNewFileInfo), moved ? 1u : 0u);
        EXPECT_EQ(GetRecordConfigInfo()->m_u32RecordFileUsed, c.used + (moved ? 1 : 0));
        ASSERT_EQ(
            AV_RecordFileConfigParamGet(GetRecordConfigInfo(), GetFileInfoHead(), GetSectionInfoHead(), 1),
            0);
        EXPECT_EQ(GetSectionInfoHead()->m_u32FileNo, c.nextFile);
        EXPECT_EQ(GetSectionInfoHead()->m_u32SectionOffset, moved ? 0u : c.dataSize);
    }
}

// The same when only the section record reached the card: the catch-up
// makes the file full, and the file is left.
TEST_F(RecordParamInitTest, FileMadeFullByItsLastSectionIsLeft) {
    SectionInfoHead section = FirstSection(kMediaFileFullSize + 0x80, 1700000240);
    WriteIndex(kMediaFileFullSize - 0x40000, &section);
    ASSERT_EQ(AVRecordParamInit(0), 0);
    EXPECT_EQ(GetRecordConfigInfo()->m_u32FileInfoHeadNo, 3u);
    EXPECT_EQ(FlagGet(g_bNewFileInfo), 1u);
}
