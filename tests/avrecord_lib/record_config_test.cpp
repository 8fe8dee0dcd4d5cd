#include "avrecord_lib/record_config.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "avrecord_lib/index_records.h"
#include "common/file_io.h"
#include "common/log.h"
#include "support/card_fixture.h"
#include "support/faulty_file_io.h"
#include "support/test_support.h"

namespace {

std::string Le32(uint32_t value) { return std::string(reinterpret_cast<const char *>(&value), 4); }

class RecordConfigTest : public testing::Test {
protected:
    void SetUp() override { index_ = dir_.File(kIndexFileName); }
    int Set(uint32_t files) {
        MkfsCapacityInfo config = {};
        config.m_u64TotalSize = 0x777700001234ull;  // only the low word is kept
        config.m_u32VideoFileNum = files;
        return AV_RecordFileConfigSet(index_.c_str(), &config);
    }
    uint32_t FreeSize() {
        uint32_t space = 0, free = 0;
        EXPECT_EQ(AV_RecordConfigInfoGet(index_.c_str(), &space, &free), 0);
        return free;
    }
    TempDir dir_;
    std::string index_;
};

TEST_F(RecordConfigTest, FreshHeaderCountsWholeUnusedFiles) {
    WriteWholeFile(index_, std::string(1024, 'x'));
    ASSERT_EQ(Set(100), 0);
    EXPECT_EQ(ReadFileAt(index_, 0, 16), "SIHF" + Le32(1) + Le32(0x1234) + Le32(100u << 28));
    EXPECT_EQ(ReadFileAt(index_, 0x14, 16), Le32(100) + Le32(0) + Le32(0) + "\x55\xBB\xAA\x55");
    EXPECT_EQ(ReadFileAt(index_, 236, 1000), std::string(1024 - 236, 'x'));  // only the header written
    EXPECT_EQ(FreeSize(), 25600u);
    WriteFileAt(index_, 0x18, Le32(30));  // 30 files used
    EXPECT_EQ(FreeSize(), 70u * 256);
}

TEST_F(RecordConfigTest, FormatsTheCardDevice) {
    ScopedRoot root;  // the card device is a 2 GiB image under the root
    MkfsCapacityInfo capacity = {};
    MakeDirectories(root.Under("/dev"));
    MakeSparseFile(root.Under("/dev/mmcblk1p1"), 2ull << 30);
    EXPECT_EQ(AV_RecordSDCardFormat(&capacity, 100), 0);
    EXPECT_EQ(capacity.m_u32VideoFileNum, 4u);  // the first GiB is held back
    ASSERT_EQ(AV_RecordFileConfigSet(index_.c_str(), &capacity), 0);
    EXPECT_EQ(ReadFileAt(index_, 0x08, 4), Le32(2048));
    EXPECT_EQ(ReadFileAt(index_, 0x14, 4), Le32(4));
}

// The card device is opened with O_EXCL: a card the kernel still has mounted
// answers EBUSY, stays as it was, and the log says it was not formatted.
TEST_F(RecordConfigTest, DeviceIsOpenedExclusivelySoABusyCardIsRefusedAloud) {
    const char *hostDevices[] = {"/dev/loop0", "/dev/vda", "/dev/sda", "/dev/zram0"};
    const char *blockDevice = nullptr;
    struct stat st;
    for (const char *device : hostDevices) {
        if (blockDevice == nullptr && stat(device, &st) == 0 && S_ISBLK(st.st_mode)) blockDevice = device;
    }
    if (blockDevice == nullptr) GTEST_SKIP() << "no block device to stand for the card";
    ScopedRoot root;  // the card device is a link to a block device; opening it is simulated
    MakeDirectories(root.Under("/dev"));
    ASSERT_EQ(symlink(blockDevice, root.Under("/dev/mmcblk1p1").c_str()), 0);
    static int openFlags;
    static FileIoOps busy = PosixFileIo();
    busy.open = [](const char *, int flags, mode_t) {
        openFlags = flags;
        errno = EBUSY;
        return -1;
    };
    SetFileIo(&busy);
    LogEnable("test", 0);
    testing::internal::CaptureStderr();
    MkfsCapacityInfo capacity = {};
    EXPECT_EQ(AV_RecordSDCardFormat(&capacity, 100), 0);
    std::string log = testing::internal::GetCapturedStderr();
    SetFileIo(nullptr);
    EXPECT_EQ(openFlags & (O_RDWR | O_EXCL), O_RDWR | O_EXCL);
    EXPECT_NE(log.find("AV_RecordSDCardFormat"), std::string::npos) << log;
    EXPECT_NE(log.find("mmcblk1p1 not formatted: the device is busy"), std::string::npos) << log;
}

// Error paths: missing or invalid index, failed writes, null arguments.
TEST_F(RecordConfigTest, FailsOnUnusableIndex) {
    uint32_t space = 7, free = 7;
    EXPECT_EQ(AV_RecordConfigInfoGet(index_.c_str(), &space, &free), -1);  // missing
    MakeSparseFile(index_, kIndexFileSize);
    EXPECT_EQ(AV_RecordConfigInfoGet(index_.c_str(), &space, &free), -1);  // all zero
    WriteWholeFile(index_, "SIHF");
    EXPECT_EQ(AV_RecordConfigInfoGet(index_.c_str(), &space, &free), -1);  // short header
    EXPECT_EQ(space + free, 14u);

    EXPECT_EQ(AV_RecordFileConfigSet(index_.c_str(), nullptr), -1);
    MkfsCapacityInfo config = {};
    EXPECT_EQ(AV_RecordFileConfigSet(dir_.File("no/such/dir").c_str(), &config), -1);
    FaultyFileIo faults;
    faults.NoSpaceAfter(100);
    EXPECT_EQ(Set(4), -1);
}

}  // namespace
