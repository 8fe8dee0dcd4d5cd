#include "sysconfig/share_mem.h"

#include "sysconfig_fixture.h"

namespace {

using ShareMemTest = SysconfigTest;

TEST_F(ShareMemTest, OpenFallsBackToExistingSegmentOfAnotherSize) {
    int small = shmget(kSysTransferKey, 4096, IPC_CREAT | 0660);
    ASSERT_GE(small, 0);
    EXPECT_EQ(ShareMemOpen(kSysTransferKey, kSysTransferSize, kSysTransferShmMode), small);
}

TEST_F(ShareMemTest, ErrorPaths) {
    ASSERT_GE(ShareMemInit(kSysTransferKey), 0);
    uint8_t byte = 0xA5;
    EXPECT_EQ(ShareMemWrite(kSysTransferSize - 1, &byte, 1), 0);  // last byte still inside
    EXPECT_EQ(ShareMemWrite(kSysTransferSize, &byte, 1), -1);
    EXPECT_EQ(ShareMemRead(kSysTransferSize - 1, &byte, 2), -1);
    EXPECT_EQ(ShareMemRead(0xFFFFFFFFu, &byte, 2), -1);
    EXPECT_EQ(ShareMemWrite(0, nullptr, 1), -1);
    EXPECT_EQ(ShareMemReadId(-1, 0, &byte, 1), -1);
}

}  // namespace
