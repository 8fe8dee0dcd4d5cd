#include "avrecord_lib/record_builder.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/card_fixture.h"

namespace {

TEST(RecordBuilderTest, SpaceSizeIsFileCountTimes256MiBModulo2To32) {
    struct Case {
        uint32_t files;
        uint32_t spaceSize;
    };
    for (const Case &c : {Case{1, 0x10000000}, Case{15, 0xF0000000}, Case{16, 0}, Case{17, 0x10000000},
                          Case{100, 0x40000000}}) {
        RecordConfigInfo info;
        memset(&info, 0xFF, sizeof info);
        AV_RecordConfigInfoInit(&info, 0xABCD, c.files);
        EXPECT_EQ(info.m_u32RecordSpaceSize, c.spaceSize) << c.files;
        EXPECT_EQ(info.m_u32RecordFileSum, c.files);
        EXPECT_EQ(info.m_u32RecordConfigValue, 0xABCDu);
        EXPECT_EQ(info.m_u32RecordFileUsed | info.m_u32FileInfoHeadNo | info.m_u32Reserved0, 0u);
        EXPECT_EQ(info.m_u32CheckCode, 0x55AABB55u);
        EXPECT_EQ(RecordBytes(info).substr(0x24), std::string(200, '\0'));
    }
}

TEST(RecordBuilderTest, SizesStopGrowingJustPastTheFullMark) {
    FileInfoHead file = {};
    file.m_u32DataSize = kMediaFileFullSize;  // at the mark: still grows
    AV_RecordFileInfoHeadAddDataSize(&file, 100);
    EXPECT_EQ(file.m_u32DataSize, kMediaFileFullSize + 100);
    AV_RecordFileInfoHeadAddDataSize(&file, 100);  // past it: stays
    EXPECT_EQ(file.m_u32DataSize, kMediaFileFullSize + 100);
    EXPECT_TRUE(AV_RecordFileInfoHeadIsFull(&file));

    SectionInfoHead section = {};
    section.m_u32SectionOffset = kMediaFileFullSize - 10;
    AV_RecordSectionInfoHeadAddSize(&section, 10);
    AV_RecordSectionInfoHeadAddSize(&section, 10);
    EXPECT_EQ(section.m_u32SectionSize, 20u);
    AV_RecordSectionInfoHeadAddSize(&section, 10);
    EXPECT_EQ(section.m_u32SectionSize, 20u);
}

TEST(RecordBuilderTest, SectionNumbersEndAt251) {
    RecordConfigInfo info;
    AV_RecordConfigInfoInit(&info, 0, 4);
    FileInfoHead file;
    AV_RecordFileInfoHeadInit(&info, &file, 10, 1);
    int taken = 0;
    while (AV_RecordFileInfoHeadNextSectionNo(&file) == 0) ++taken;
    EXPECT_EQ(taken, 250);
    EXPECT_EQ(file.m_u32RecordSectionSum, kMaxSectionNo);
    EXPECT_EQ(AV_RecordFileInfoHeadNextSectionNo(&file), -1);
    EXPECT_EQ(file.m_u32RecordSectionSum, kMaxSectionNo);
}

TEST(RecordBuilderTest, SectionStartsWhereTheFileDataEnds) {
    RecordConfigInfo info;
    AV_RecordConfigInfoInit(&info, 0, 8);
    info.m_u32FileInfoHeadNo = 6;
    FileInfoHead file;
    AV_RecordFileInfoHeadInit(&info, &file, 500, 4);
    file.m_u32DataSize = 123456;
    AV_RecordFileInfoHeadNextSectionNo(&file);
    SectionInfoHead section;
    memset(&section, 0xEE, sizeof section);
    AV_RecordSectionInfoHeadInit(&file, &section, 600, 1, 9);
    EXPECT_EQ(section.m_u32FileNo, 6);
    EXPECT_EQ(section.m_u16SectionNo, 2);
    EXPECT_EQ(section.m_u32SectionOffset, 123456u);
    EXPECT_EQ(section.m_u32KeyFrameEntrySize, 20u);
    EXPECT_EQ(section.m_u8MediaFlag, 1);
    EXPECT_EQ(section.m_u8RecordType, 9);
    EXPECT_EQ(section.m_u32EndTime | section.m_u32SectionSize | section.m_u32VideoFrameSum, 0u);
    EXPECT_EQ(section.m_u16Width | section.m_u8FrameRate | section.m_u8AudioCodeType, 0);

    SectionMediaParam param = {1920, 1080, 25, 7, 3};
    AV_RecordSectionInfoHeadSetMediaParam(&section, &param);
    EXPECT_EQ(RecordBytes(section).substr(0x24, 9), std::string("\x80\x07\x38\x04\x19\x01\x07\x03\x09", 9));

    AV_RecordSectionInfoHeadCountFrame(&section, 1, 0);  // key video frame
    AV_RecordSectionInfoHeadCountFrame(&section, 0, 1);  // audio frame
    AV_RecordSectionInfoHeadCountFrame(&section, 0, 0);  // video frame
    EXPECT_EQ(section.m_u32KeyFrameSum, 1u);
    EXPECT_EQ(section.m_u32VideoFrameSum, 2u);
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

TEST(RecordBuilderTest, AlarmEventsCountTo1024AndEntriesTakeTheirIndex) {
    AlarmEventInfo info;
    memset(&info, 0xEE, sizeof info);
    AV_AlarmEventFileInfoInit(&info, 0x12345, 77, 4);
    EXPECT_EQ(info.m_u32AlarmEventSum | info.m_u32EndTime, 0u);
    EXPECT_EQ(info.m_u32Reserved0, 0xEEEEEEEEu);  // left as it was
    EXPECT_EQ(info.m_u8AlarmType, 4);
    AlarmEventEntry entry;
    for (int i = 0; i < 1100; ++i) AV_AlarmEventFileInfoNextEvent(&info);
    EXPECT_EQ(info.m_u32AlarmEventSum, kMaxAlarmEventSum);
    AV_AlarmEventEntryInit(&info, &entry, 90, 4);
    EXPECT_EQ(entry.m_u16FileNo, 0x2345);
    EXPECT_EQ(entry.m_u16EventNo, 1024);
    AV_AlarmEventEntrySetFrameRate(&entry, 30);
    EXPECT_EQ(RecordBytes(entry).substr(0x18, 2), "\x04\x1e");
}

}  // namespace
