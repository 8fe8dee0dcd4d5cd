#include "avrecord_lib/record_section.h"

#include <gtest/gtest.h>

#include <cstring>

#include "avrecord_lib/record_builder.h"
#include "common/log.h"
#include "support/test_support.h"

namespace {

time_t g_now = 0;
time_t FakeNow() { return g_now; }

class RecordSectionTest : public testing::Test {
protected:
    void SetUp() override {
        SetRecordClockForTest(FakeNow);
        g_now = 1700000000;
        g_u32LastRecordEndTime = 0;
        AV_RecordConfigInfoInit(&info_, 0, 10);
        info_.m_u32FileInfoHeadNo = 4;
        memset(&file_, 0, sizeof file_);
    }
    void TearDown() override { SetRecordClockForTest(nullptr); }
    int Open(uint8_t recordType = 1) {
        return AV_RecordFileConfigParamGet(&info_, &file_, &section_, recordType);
    }

    RecordConfigInfo info_;
    FileInfoHead file_;
    SectionInfoHead section_;
};

TEST_F(RecordSectionTest, SectionsFollowInTheCurrentFile) {
    ASSERT_EQ(Open(5), 0);  // first section: a fresh file record
    EXPECT_EQ(file_.m_u32FileNo, 4u);
    EXPECT_EQ(file_.m_u32StartTime, g_now);
    EXPECT_EQ(file_.m_u32RecordType, 1u);
    EXPECT_EQ(section_.m_u16SectionNo, 1);
    EXPECT_EQ(section_.m_u8RecordType, 5);

    file_.m_u32DataSize = 5000;
    file_.m_u32RecordType = 4;
    g_now -= 100;  // the clock went back: the file starts earlier now
    ASSERT_EQ(Open(), 0);
    EXPECT_EQ(file_.m_u32RecordSectionSum, 2u);
    EXPECT_EQ(file_.m_u32StartTime, g_now);
    EXPECT_EQ(file_.m_u32RecordType, 5u);
    EXPECT_EQ(section_.m_u16SectionNo, 2);
    EXPECT_EQ(section_.m_u32SectionOffset, 5000u);
    file_.m_u32RecordSectionSum = kMaxSectionNo;  // the last slot is taken again
    ASSERT_EQ(Open(), 0);
    EXPECT_EQ(section_.m_u16SectionNo, kMaxSectionNo);
    EXPECT_EQ(AV_RecordFileConfigParamGet(&info_, &file_, nullptr, 1), -1);
}

// Past 2038-01-19 03:14:07 UTC a start time is stored as it is; a clock
// before 1970 or past 2106-02-07 06:28:15 UTC opens nothing.
TEST_F(RecordSectionTest, SectionStartsSpan2038AndStopAt2106) {
    g_now = 0x7fffffff;
    ASSERT_EQ(Open(), 0);
    g_now = 0x80000005;
    ASSERT_EQ(Open(), 0);
    EXPECT_EQ(file_.m_u32StartTime, 0x7fffffffu);
    EXPECT_EQ(section_.m_u32StartTime, 0x80000005u);
    EXPECT_EQ(section_.m_u16SectionNo, 2);

    FileInfoHead file = file_;
    SectionInfoHead section = section_;
    for (time_t refused : {time_t{0x100000000}, time_t{-1}}) {
        g_now = refused;
        EXPECT_EQ(Open(), -1) << refused;
        EXPECT_EQ(memcmp(&file, &file_, sizeof file), 0) << refused;
        EXPECT_EQ(memcmp(&section, &section_, sizeof section), 0) << refused;
    }
}

// The section's start time is logged under the function that opens it.
TEST_F(RecordSectionTest, StartIsLoggedUnderTheOpeningFunction) {
    LogEnable("test", 0);
    testing::internal::CaptureStderr();
    ASSERT_EQ(Open(), 0);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("PlayTime"), std::string::npos) << log;
    EXPECT_TRUE(LogNamesFunction(log, "AV_RecordFileConfigParamGet")) << log;
    EXPECT_FALSE(LogNamesFunction(log, "LogSectionStart")) << log;
}

TEST_F(RecordSectionTest, JoinsThePreviousRunWithinTwoSeconds) {
    struct Case {
        uint32_t lastEndBeforeNow;  // now - saved end; 0: saved end after now
        bool join;
        bool cleared;
    };
    for (const Case &c :
         {Case{1, true, true}, Case{2, true, true}, Case{3, false, true}, Case{0, false, false}}) {
        uint32_t lastEnd = c.lastEndBeforeNow != 0 ? g_now - c.lastEndBeforeNow : g_now + 5;
        g_u32LastRecordEndTime = lastEnd;
        memset(&file_, 0, sizeof file_);
        ASSERT_EQ(Open(), 0);
        EXPECT_EQ(section_.m_u32StartTime, c.join ? lastEnd : g_now) << c.lastEndBeforeNow;
        EXPECT_EQ(g_u32LastRecordEndTime.load(), c.cleared ? 0u : lastEnd) << c.lastEndBeforeNow;
    }
}

TEST_F(RecordSectionTest, FullFileIsRefusedOrRecycled) {
    struct Case {
        uint32_t used;
        uint32_t dataSize;
        uint8_t cover;
        int result;
    };
    const Case cases[] = {
        {10, kMediaFileFullSize, 0, -1},     // card full, overwriting forbidden
        {10, kMediaFileFullSize, 1, 1},      // card full, overwrite the oldest
        {3, kMediaFileFullSize, 0, 1},       // next file is unused
        {10, kMediaFileFullSize - 1, 0, 0},  // room left in the current file
    };
    for (const Case &c : cases) {
        ASSERT_EQ(Open(), 0);
        file_.m_u32DataSize = c.dataSize;
        info_.m_u32RecordFileUsed = c.used;
        FileInfoHead before = file_;
        EXPECT_EQ(AV_RecordFileCoverCheck(&info_, &file_, c.cover), c.result) << c.used << " " << c.dataSize;
        EXPECT_EQ(file_.m_u32HeadFlag, c.result == 1 ? 0u : before.m_u32HeadFlag);
    }
    // After the run moved on, the cleared record opens the next file afresh.
    ASSERT_EQ(Open(), 0);
    file_.m_u32DataSize = kMediaFileFullSize;
    info_.m_u32RecordFileUsed = 0;
    AV_RecordNextFileSelect(&info_, &file_);
    ASSERT_EQ(AV_RecordFileCoverCheck(&info_, &file_, 0), 1);
    ASSERT_EQ(Open(), 0);
    EXPECT_EQ(file_.m_u32FileNo, 5u);
    EXPECT_EQ(section_.m_u16SectionNo, 1);
    EXPECT_EQ(section_.m_u32SectionOffset, 0u);
}

}  // namespace
