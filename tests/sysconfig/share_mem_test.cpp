#include "sysconfig/share_mem.h"

#include <cstring>
#include <vector>

#include "sysconfig_fixture.h"

namespace {

using ShareMemTest = SysconfigTest;

TEST_F(ShareMemTest, CopyInAndOutOfProcessArea) {
    ASSERT_GE(ShareMemInit(kSysTransferKey), 0);
    const uint32_t area = kSysTransferAreaSize * (kAvRecordProcId - 2);
    std::vector<uint8_t> value(364);
    for (size_t i = 0; i < value.size(); ++i) value[i] = static_cast<uint8_t>(i * 7);
    ASSERT_EQ(ShareMemWrite(area, value.data(), value.size()), 0);

    // Another attacher sees the bytes at the area's offset.
    int id = shmget(kSysTransferKey, 0, 0);
    auto *base = static_cast<uint8_t *>(shmat(id, nullptr, 0));
    ASSERT_NE(base, reinterpret_cast<uint8_t *>(-1));
    EXPECT_EQ(std::memcmp(base + 36864, value.data(), value.size()), 0);
    EXPECT_EQ(base[36864 - 1], 0);
    EXPECT_EQ(base[36864 + 364], 0);
    shmdt(base);

    std::vector<uint8_t> back(364);
    ASSERT_EQ(ShareMemRead(area, back.data(), back.size()), 0);
    EXPECT_EQ(back, value);
    // The last byte of the segment is reachable.
    uint8_t last = 0xA5;
    EXPECT_EQ(ShareMemWrite(kSysTransferSize - 1, &last, 1), 0);
}

TEST_F(ShareMemTest, OpenFallsBackToExistingSegmentOfAnotherSize) {
    int small = shmget(kSysTransferKey, 4096, IPC_CREAT | 0660);
    ASSERT_GE(small, 0);
    EXPECT_EQ(ShareMemOpen(kSysTransferKey, kSysTransferSize, kSysTransferShmMode), small);
}

TEST_F(ShareMemTest, ErrorPaths) {
    ASSERT_GE(ShareMemInit(kSysTransferKey), 0);
    uint8_t byte = 0;
    EXPECT_EQ(ShareMemWrite(kSysTransferSize, &byte, 1), -1);
    EXPECT_EQ(ShareMemRead(kSysTransferSize - 1, &byte, 2), -1);
    EXPECT_EQ(ShareMemRead(0xFFFFFFFFu, &byte, 2), -1);
    EXPECT_EQ(ShareMemWrite(0, nullptr, 1), -1);
    EXPECT_EQ(ShareMemReadId(-1, 0, &byte, 1), -1);
}

}  // namespace
