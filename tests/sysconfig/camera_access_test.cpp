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

TEST_F(CameraAccessTest, CommandCheckCodesByTable) {
    AudioProperty audio{};
    std::string err = Stderr([&] { EXPECT_EQ(CameraGetAudioProperty(&audio), kCameraNotInit); });
    EXPECT_NE(err.find("Camera dev is not initialize, initialize first!\n"), std::string::npos) << err;

    struct Case {
        int type, cmd, code;
        const char *warning;
    };
    const char *noHandler = "The Onvif cmd is not support now!\n";
    const Case cases[] = {
        {1, 0, kCameraNoHandler, noHandler},
        {1, 215, kCameraNoHandler, noHandler},
        {1, CAMERA_CMD_GET_REGULAR_RECORD, 0, ""},
        {1, 216, kCameraCmdMismatch, "Cmd not match!cmd = 216, pCameraAccess[216].Camera_command = 0\n"},
        {1, -1, kCameraCmdMismatch, "Cmd not match!cmd = -1"},
        {2, 28, kCameraNoHandler, noHandler},
        {2, CAMERA_CMD_GET_AUDIO_ENCODING, 0, ""},
        {2, 30, kCameraCmdMismatch, "Cmd not match!cmd = 30, pCameraAccess[30].Camera_command = 31\n"},
        {2, 45, kCameraCmdMismatch, "pCameraAccess[45].Camera_command = 47\n"},
        {2, 46, kCameraNoHandler, noHandler},
        {2, 70, kCameraCmdMismatch, "pCameraAccess[70].Camera_command = 71\n"},
        {2, CAMERA_CMD_GET_REGULAR_RECORD, kCameraCmdMismatch, "pCameraAccess[115].Camera_command = 0\n"},
    };
    for (int type : {kCameraTypeCommon, kCameraTypeReduced}) {
        CameraAccessResetForTest();
        Stderr([&] { ASSERT_EQ(CameraAccessInit(type, 6), 0); });
        EXPECT_EQ(SysGetProcId(), 5);
        EXPECT_EQ(CameraGetAudioProperty(nullptr), kCameraBadArgument);
        for (const Case &c : cases) {
            if (c.type != type) continue;
            err = Stderr([&] { EXPECT_EQ(CameraCmdCheck(c.cmd), c.code) << type << " " << c.cmd; });
            EXPECT_NE(err.find(c.warning), std::string::npos) << err;
        }
    }
}

}  // namespace
