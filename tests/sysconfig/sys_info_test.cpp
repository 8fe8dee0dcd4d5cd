#include "sysconfig/sys_info.h"

#include <cstring>

#include "sysconfig_fixture.h"

namespace {

using SysInfoTest = SysconfigTest;

TEST_F(SysInfoTest, AttachCreatesFullSizeSegmentSharedWithOtherAttachers) {
    testing::internal::CaptureStderr();
    ASSERT_EQ(SysInfoAttach(), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("shared memory size 147456\n"), std::string::npos) << err;
    EXPECT_NE(err.find("pSysConfig:"), std::string::npos) << err;

    int id = shmget(kSysInfoShmKey, 0, 0);
    ASSERT_GE(id, 0);
    struct shmid_ds ds {};
    ASSERT_EQ(shmctl(id, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_segsz, kSysInfoSize);

    // The configuration server writes the record through its own attach;
    // the reader sees the bytes at the fixed offsets.
    auto *server = static_cast<uint8_t *>(shmat(id, nullptr, 0));
    ASSERT_NE(server, reinterpret_cast<uint8_t *>(-1));
    server[7074] = 2;
    server[3474 + 158 * 2] = 0x38;  // stream 2 height 0x438 = 1080
    server[3475 + 158 * 2] = 0x04;
    server[SysDaySegmentOffset(6, 5) + 7] = 3;
    const SysInfo *info = GetSysInfo();
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->videoRecord.ucVideoStreamType, 2);
    EXPECT_EQ(info->stream[2].usHeight, 1080);
    EXPECT_EQ(info->videoRecord.weekScope.dayScope[6].segment[5].endHour.ucType, 3);
    shmdt(server);

    EXPECT_EQ(SysInfoDetach(), 0);
    EXPECT_EQ(GetSysInfo(), nullptr);
}

TEST_F(SysInfoTest, ExistingSmallerSegmentIsAttachedThroughLookup) {
    // Large enough for every field read, smaller than the full record.
    int id = shmget(kSysInfoShmKey, 8192, IPC_CREAT | 0660);
    ASSERT_GE(id, 0);
    ASSERT_EQ(SysInfoAttach(), 0);
    ASSERT_NE(GetSysInfo(), nullptr);
    EXPECT_EQ(GetSysInfo()->videoRecord.ucEnable, 0);
}

// Error paths. A segment under the key too small to hold the fields read
// (another program's) is refused, not read past.
TEST_F(SysInfoTest, SegmentTooSmallForTheFieldsReadIsRefused) {
    ASSERT_GE(shmget(kSysInfoShmKey, 4096, IPC_CREAT | 0660), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(SysInfoAttach(), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(GetSysInfo(), nullptr);
    EXPECT_EQ(SysInfoDetach(), 0);  // nothing attached: harmless
}

}  // namespace
