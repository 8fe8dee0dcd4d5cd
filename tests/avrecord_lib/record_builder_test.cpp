#include "avrecord_lib/record_builder.h"

#include <gtest/gtest.h>

namespace {

TEST(RecordBuilderTest, SpaceSizeIsFileCountTimes256MiBModulo2To32) {
    const uint32_t cases[][2] = {
        {1, 0x10000000}, {15, 0xF0000000}, {16, 0}, {17, 0x10000000}, {100, 0x40000000}};
    for (const auto &c : cases) {
        RecordConfigInfo info;
        AV_RecordConfigInfoInit(&info, 0, c[0]);
        EXPECT_EQ(info.m_u32RecordSpaceSize, c[1]) << c[0] << " files";
        EXPECT_EQ(info.m_u32RecordFileSum, c[0]);
    }
}

TEST(RecordBuilderTest, SizesStopGrowingJustPastTheFullMark) {
    FileInfoHead file = {};
    file.m_u32DataSize = kMediaFileFullSize;  // at the mark: still grows
    AV_RecordFileInfoHeadAddDataSize(&file, 100);
    AV_RecordFileInfoHeadAddDataSize(&file, 100);  // past it: stays
    EXPECT_EQ(file.m_u32DataSize, kMediaFileFullSize + 100);

    SectionInfoHead section = {};
    section.m_u32SectionOffset = kMediaFileFullSize - 10;
    for (int i = 0; i < 3; ++i) AV_RecordSectionInfoHeadAddSize(&section, 10);
    EXPECT_EQ(section.m_u32SectionSize, 20u);

}

// Files are taken strictly in circular order; a file is left only when full
// and the used count stops at the file sum.
TEST(RecordBuilderTest, CircularFileChoice) {
    RecordConfigInfo info;
    AV_RecordConfigInfoInit(&info, 0, 3);
    FileInfoHead file = {};
    file.m_u32DataSize = kMediaFileFullSize - 1;
    AV_RecordFileUsedAdvance(&info, &file);
    AV_RecordFileInfoHeadNoAdvance(&info, &file);
    EXPECT_EQ(info.m_u32RecordFileUsed, 0u);
    EXPECT_EQ(info.m_u32FileInfoHeadNo, 0u);

    file.m_u32DataSize = kMediaFileFullSize;
    const uint32_t expectedNo[] = {1, 2, 0, 1, 2, 0, 1};
    const uint32_t expectedUsed[] = {1, 2, 3, 3, 3, 3, 3};
    for (int turn = 0; turn < 7; ++turn) {
        AV_RecordFileUsedAdvance(&info, &file);
        AV_RecordFileInfoHeadNoAdvance(&info, &file);
        EXPECT_EQ(info.m_u32FileInfoHeadNo, expectedNo[turn]) << turn;
        EXPECT_EQ(info.m_u32RecordFileUsed, expectedUsed[turn]) << turn;
    }
}

}  // namespace
