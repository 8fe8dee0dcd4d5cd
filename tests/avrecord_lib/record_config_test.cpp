#include "avrecord_lib/record_config.h"

#include <gtest/gtest.h>

#include <string>

#include "avrecord_lib/index_records.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "common/platform_paths.h"
#include "support/card_fixture.h"
#include "support/faulty_file_io.h"
#include "support/test_support.h"

namespace {

std::string Le32(uint32_t value) { return std::string(reinterpret_cast<const char *>(&value), 4); }

class RecordConfigTest : public testing::Test {
protected:
    void SetUp() override { index_ = dir_.File(kIndexFileName); }
    int Set(uint32_t files, uint32_t value = 0x1234) {
        MkfsCapacityInfo config = {};
        config.m_u64TotalSize = 0x7777000000000000ull | value;  // only the low word is kept
        config.m_u32VideoFileNum = files;
        return AV_RecordFileConfigSet(index_.c_str(), &config);
    }
    TempDir dir_;
    std::string index_;
};

TEST_F(RecordConfigTest, FreshHeaderGivesTheWholeCardAsFree) {
    MakeSparseFile(index_, kIndexFileSize);
    ASSERT_EQ(Set(100), 0);
    EXPECT_EQ(ReadFileAt(index_, 0, 12), std::string("SIHF\x01\0\0\0\x34\x12\0\0", 12));
    EXPECT_EQ(ReadFileAt(index_, 0x14, 4), std::string("d\0\0\0", 4));
    EXPECT_EQ(ReadFileAt(index_, 0x20, 4), "\x55\xBB\xAA\x55");
    uint32_t space = 0, free = 0;
    ASSERT_EQ(AV_RecordConfigInfoGet(index_.c_str(), &space, &free), 0);
    EXPECT_EQ(free, 25600u);
    EXPECT_EQ(space, 100u << 28);

    int fd = AVFileOpen(index_.c_str(), kAVFileModeReadWrite);
    RecordConfigInfo info;
    AV_RecordConfigInfoRead(fd, &info);
    info.m_u32RecordFileUsed = 30;
    AV_RecordConfigInfoWrite(fd, &info);
    AVFileClose(fd);
    ASSERT_EQ(AV_RecordConfigInfoGet(index_.c_str(), &space, &free), 0);
    EXPECT_EQ(free, 70u * 256);
}

TEST_F(RecordConfigTest, SetWritesOnlyTheHeader) {
    WriteWholeFile(index_, std::string(1024, 'x'));
    ASSERT_EQ(Set(16), 0);
    std::string content = ReadWholeFile(index_);
    EXPECT_EQ(content.size(), 1024u);
    EXPECT_EQ(content.substr(0x0C, 4), std::string(4, '\0'));  // 16 << 28 wraps
    EXPECT_EQ(content.substr(236), std::string(1024 - 236, 'x'));
}

int g_formatCalls = 0;
std::string g_formatDevice;
MkfsCapacityInfo *g_formatCapacity = nullptr;
int g_formatPercent = 0;
int RecordingFormatter(const char *device, MkfsCapacityInfo *capacity, int percent) {
    ++g_formatCalls;
    g_formatDevice = device;
    g_formatCapacity = capacity;
    g_formatPercent = percent;
    return -1;
}

TEST_F(RecordConfigTest, FormatHandsBothParametersToTheFormatter) {
    ScopedRoot root;
    SetSDCardFormatFunc(RecordingFormatter);
    MkfsCapacityInfo capacity = {};
    EXPECT_EQ(AV_RecordSDCardFormat(&capacity, 70), 0);  // even though formatting failed
    SetSDCardFormatFunc(nullptr);
    EXPECT_EQ(g_formatCalls, 1);
    EXPECT_EQ(g_formatDevice, root.Under("/dev/mmcblk1p1"));
    EXPECT_EQ(g_formatCapacity, &capacity);
    EXPECT_EQ(g_formatPercent, 70);
}

TEST_F(RecordConfigTest, FormatsTheCardDeviceAndTheHeaderFollows) {
    ScopedRoot root;
    MakeDirectories(root.Under("/dev"));
    MakeSparseFile(root.Under("/dev/mmcblk1p1"), 2ull << 30);
    MkfsCapacityInfo capacity = {};
    EXPECT_EQ(AV_RecordSDCardFormat(&capacity, 100), 0);
    EXPECT_EQ(capacity.m_u64TotalSize, 2048u);
    EXPECT_EQ(capacity.m_u32VideoFileNum, 4u);  // the first GiB is held back
    ASSERT_EQ(AV_RecordFileConfigSet(index_.c_str(), &capacity), 0);
    EXPECT_EQ(ReadFileAt(index_, 0x08, 4), Le32(2048));
    EXPECT_EQ(ReadFileAt(index_, 0x14, 4), Le32(4));
}

// Error paths: missing or invalid index, failed writes, null arguments.
TEST_F(RecordConfigTest, FailsOnUnusableIndex) {
    uint32_t space = 7, free = 7;
    EXPECT_EQ(AV_RecordConfigInfoGet(index_.c_str(), &space, &free), -1);  // missing
    MakeSparseFile(index_, kIndexFileSize);
    EXPECT_EQ(AV_RecordConfigInfoGet(index_.c_str(), &space, &free), -1);  // all zero
    WriteWholeFile(index_, "SIHF");
    EXPECT_EQ(AV_RecordConfigInfoGet(index_.c_str(), &space, &free), -1);  // short header
    EXPECT_EQ(space, 7u);
    EXPECT_EQ(free, 7u);
    EXPECT_EQ(AV_RecordConfigInfoGet(index_.c_str(), nullptr, &free), -1);

    MkfsCapacityInfo config = {};
    EXPECT_EQ(AV_RecordFileConfigSet(nullptr, &config), -1);
    EXPECT_EQ(AV_RecordFileConfigSet(index_.c_str(), nullptr), -1);
    EXPECT_EQ(AV_RecordFileConfigSet(dir_.File("no/such/dir").c_str(), &config), -1);
    FaultyFileIo faults;
    faults.NoSpaceAfter(100);
    EXPECT_EQ(Set(4), -1);
}

}  // namespace
