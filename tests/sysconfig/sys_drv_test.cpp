#include "sysconfig/sys_drv.h"

#include "sysconfig_fixture.h"

namespace {

using SysDrvTest = SysconfigTest;

TEST(SysProcIdTest, ProcessArgumentsMapToProcessNumbers) {
    struct Case {
        int arg;
        int procId;
        const char *word;
    };
    const Case cases[] = {
        {1, 2, "PROCESS_BOA"},
        {2, 4, "PROCESS_DEVICESEARCH"},
        {3, 3, "PROCESS_FREEIP"},
        {4, 6, "PROCESS_SDKSERVER"},
        {5, 7, "PROCESS_P2PSERVER"},
        {6, 5, "PROCESS_AVRECORD"},
        {0, 12, nullptr},
        {7, 12, nullptr},
        {-1, 12, nullptr},
    };
    for (const Case &c : cases) {
        const char *word = "unset";
        EXPECT_EQ(SysProcIdFromArg(c.arg, &word), c.procId) << c.arg;
        if (c.word == nullptr) {
            EXPECT_EQ(word, nullptr) << c.arg;
        } else {
            EXPECT_STREQ(word, c.word);
        }
    }
}

TEST_F(SysDrvTest, InitPreparesChannelAndExitResets) {
    testing::internal::CaptureStderr();
    ASSERT_EQ(SysDrvInit(kAvRecordProcId), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Creat queue id:"), std::string::npos) << err;
    EXPECT_EQ(SysGetProcId(), 5);
    EXPECT_GE(shmget(kSysTransferKey, 0, 0), 0);
    EXPECT_EQ(SysGetMsgId(), msgget(kSysTransferKey, 0));
    SemHandl_t sem = SysGetRequestSem();
    ASSERT_NE(sem, nullptr);

    // A second init keeps the mutex and finds the queue.
    testing::internal::CaptureStderr();
    ASSERT_EQ(SysDrvInit(kAvRecordProcId), 0);
    err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.find("Creat queue"), std::string::npos) << err;
    EXPECT_EQ(SysGetRequestSem(), sem);

    EXPECT_EQ(SysDrvExit(), 0);
    EXPECT_EQ(SysGetProcId(), 1);
    EXPECT_EQ(SysGetRequestSem(), nullptr);
}

TEST_F(SysDrvTest, ErrorPaths) {
    // Out-of-range process numbers fail and leave process number 1, even
    // after a successful init.
    ASSERT_EQ(SysDrvInit(3), 0);
    for (int procId : {0, 16}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(SysDrvInit(procId), -1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error:Invalid Parameter\n");
        EXPECT_EQ(SysGetProcId(), 1);
    }
}

}  // namespace
