// The simulated configuration server answering the recorder's own request
// code: what Common_SetRegularRecordProperty sends lands in SysInfo.
#include "lib/sim_config_server.h"

#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>

#include "support/test_support.h"
#include "sysconfig/camera_access.h"
#include "sysconfig/share_mem.h"
#include "sysconfig/sys_info.h"

namespace {

TEST(SimConfigServer, RecordRequestsLandInSysInfo) {
    REQUIRE_PRIVATE_IPC();
    ASSERT_EQ(SysInfoAttach(), 0);
    memset(GetSysInfoForWriting(), 0, sizeof(SysInfo));
    SimStatus status{};
    SimConfigServer server;
    ASSERT_TRUE(server.Start(&status));

    CameraAccessResetForTest();
    ASSERT_EQ(CameraAccessInit(kCameraTypeCommon, 6), 0);
    RegularRecordProperty record{};
    record.videoRecord.ucEnable = 1;
    record.videoRecord.ucVideoStreamType = 2;
    record.weekScop.dayScope[6].ucSocpeMode = TIME_SCOPE_DIFF;
    record.weekScop.dayScope[6].segment[5] = {{20, 0, 0, 0}, {23, 59, 59, 1}};
    ASSERT_EQ(CameraSetRegularRecordProperty(&record), 0);

    const SysInfo *info = GetSysInfo();
    EXPECT_EQ(info->videoRecord.ucEnable, 1);
    EXPECT_EQ(info->videoRecord.ucVideoStreamType, 2);
    const SysDayScope &saturday = info->videoRecord.weekScope.dayScope[6];
    EXPECT_EQ(saturday.ucSocpeMode, TIME_SCOPE_DIFF);
    EXPECT_EQ(saturday.segment[5].beginHour.ucHour, 20);
    EXPECT_EQ(saturday.segment[5].endHour.ucType, 1);
    // The server counts a request after its reply has gone out.
    for (int i = 0; i < 1000 && SimLoad(status.ConfigRequests) < 3; ++i) usleep(1000);
    EXPECT_EQ(SimLoad(status.ConfigRequests), 3u);

    server.Stop();
    EXPECT_LT(msgget(kSysTransferKey, 0), 0);
    EXPECT_LT(shmget(kSysTransferKey, 0, 0), 0);
    CameraAccessResetForTest();
    SysInfoDetach();
}

}  // namespace
