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
    void WriteIndex(uint32_t dataSize, const SectionInfoHead *section = nullptr) {
        RecordConfigInfo info{};
        AV_RecordConfigInfoInit(&info, 0, kMediaFiles);
        uint32_t current = 2;
        info.m_u32FileInfoHeadNo = current;
        WriteFileAt(Index(), 0, RecordBytes(info));
        FileInfoHead file{};
        AV_RecordFileInfoHeadInit(&info, &file, 1700000000, 1);
        file.m_u32DataSize = dataSize;
        WriteFileAt(Index(), FileInfoHeadPosition(current), RecordBytes(file));
        if (section != nullptr)
            WriteFileAt(Index(), SectionInfoHeadPosition(current, 1), RecordBytes(*section));
    }

    std::string Index() const { return card_ + kIndexFileName; }

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
    FileInfoHead file{};
    file.m_u32FileNo = 2;
    file.m_u32RecordSectionSum = 1;
    SectionInfoHead section{};
    AV_RecordSectionInfoHeadInit(&file, &section, 1700000000, 1, 1);
    section.m_u32SectionSize = 0x40507;
    section.m_u32EndTime = 1700000009;
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
