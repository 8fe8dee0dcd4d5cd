#include "sysconfig/camera_access.h"

#include "common/log.h"
#include "sysconfig_fixture.h"

namespace {

class CameraAccessTest : public SysconfigTest {
protected:
    void SetUp() override {
        SysconfigTest::SetUp();
        CameraAccessResetForTest();
        LogEnable("OnvifAccess", 3);
    }
    void TearDown() override {
        CameraAccessResetForTest();
        SysconfigTest::TearDown();
    }
    // Runs call with standard error captured; returns what was written.
    template <typename Call>
    static std::string Stderr(Call call) {
        testing::internal::CaptureStderr();
        call();
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(CameraAccessTest, RecorderInitSetsUpProcessFive) {
    std::string err = Stderr([] { EXPECT_EQ(CameraAccessInit(kCameraTypeCommon, kAvRecordProcessArg), 0); });
    EXPECT_NE(err.find("PROCESS_AVRECORD"), std::string::npos) << err;
    EXPECT_EQ(SysGetProcId(), 5);
    EXPECT_NE(GetSysInfo(), nullptr);
    EXPECT_EQ(semget(kConfigSemKey, 0, 0), ConfigSemId());
    EXPECT_EQ(CameraAccessInit(kCameraTypeCommon, kAvRecordProcessArg), kCameraAlreadyInit);
    VideoEncodingProperty streams[kSysStreamCount];
    EXPECT_EQ(CameraGetVideoEncodingProperty(streams), 0);
}

TEST_F(CameraAccessTest, InitRefusesBadAndUnknownTypes) {
    EXPECT_EQ(CameraAccessInit(0, 6), kCameraBadArgument);
    EXPECT_EQ(CameraAccessInit(4, 6), kCameraBadArgument);
    EXPECT_EQ(CameraAccessInit(-1, 6), kCameraBadArgument);
    std::string err = Stderr([] { EXPECT_EQ(CameraAccessInit(kCameraTypeNone, 6), kCameraUnknown); });
    EXPECT_NE(err.find("Unknown camera !\n"), std::string::npos) << err;
    // None of these counts as an initialisation.
    EXPECT_EQ(CameraCmdCheck(CAMERA_CMD_INIT), kCameraNotInit);
    // A failing Common_Init is the init's result.
    ASSERT_GE(shmget(kSysInfoShmKey, 4096, IPC_CREAT | 0660), 0);
    Stderr([] { EXPECT_EQ(CameraAccessInit(kCameraTypeCommon, 6), -1); });
    EXPECT_EQ(GetSysInfo(), nullptr);
}

TEST_F(CameraAccessTest, CommandCheckCodesOfCommonTable) {
    AudioProperty audio{};
    std::string err = Stderr([&] { EXPECT_EQ(CameraGetAudioProperty(&audio), kCameraNotInit); });
    EXPECT_NE(err.find("Camera dev is not initialize, initialize first!\n"), std::string::npos) << err;

    Stderr([] { ASSERT_EQ(CameraAccessInit(kCameraTypeCommon, 6), 0); });
    EXPECT_EQ(CameraGetAudioProperty(nullptr), kCameraBadArgument);
    struct Case {
        int cmd;
        int code;
        const char *warning;
    };
    const Case cases[] = {
        {0, kCameraNoHandler, "The Onvif cmd is not support now!\n"},
        {2, kCameraNoHandler, "The Onvif cmd is not support now!\n"},
        {215, kCameraNoHandler, "The Onvif cmd is not support now!\n"},
        {CAMERA_CMD_GET_REGULAR_RECORD, 0, nullptr},
        {216, kCameraCmdMismatch, "Cmd not match!cmd = 216, pCameraAccess[216].Camera_command = 0\n"},
        {-1, kCameraCmdMismatch, "Cmd not match!cmd = -1"},
    };
    for (const Case &c : cases) {
        err = Stderr([&] { EXPECT_EQ(CameraCmdCheck(c.cmd), c.code) << c.cmd; });
        if (c.warning != nullptr) {
            EXPECT_NE(err.find(c.warning), std::string::npos) << err;
        }
    }
}

TEST_F(CameraAccessTest, ReducedTableShiftsCommands) {
    Stderr([] { ASSERT_EQ(CameraAccessInit(kCameraTypeReduced, 6), 0); });
    EXPECT_EQ(SysGetProcId(), 5);
    std::string err = Stderr([] { EXPECT_EQ(CameraCmdCheck(30), kCameraCmdMismatch); });
    EXPECT_NE(err.find("Cmd not match!cmd = 30, pCameraAccess[30].Camera_command = 31\n"), std::string::npos)
        << err;
    err = Stderr([] { EXPECT_EQ(CameraCmdCheck(45), kCameraCmdMismatch); });
    EXPECT_NE(err.find("pCameraAccess[45].Camera_command = 47\n"), std::string::npos) << err;
    EXPECT_EQ(CameraCmdCheck(46), kCameraNoHandler);
    EXPECT_EQ(CameraCmdCheck(28), kCameraNoHandler);
    EXPECT_EQ(CameraCmdCheck(70), kCameraCmdMismatch);
    // The encoding properties lie below the shift and still work; the
    // schedule lies beyond the table.
    AudioEncodingProperty audio{};
    EXPECT_EQ(CameraGetAudioEncodingProperty(&audio), 0);
    RegularRecordProperty record{};
    Stderr([&] { EXPECT_EQ(CameraGetRegularRecordProperty(&record), kCameraCmdMismatch); });
}

}  // namespace
