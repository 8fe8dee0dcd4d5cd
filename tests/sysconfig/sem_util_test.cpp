#include "sysconfig/sem_util.h"

#include "sysconfig_fixture.h"

namespace {

using SemUtilTest = SysconfigTest;

TEST_F(SemUtilTest, ConfigSemaphoreSetTakesAndGives) {
    testing::internal::CaptureStderr();
    ASSERT_EQ(ConfigSemCreate(kConfigSemKey), 0);
    ASSERT_EQ(ConfigSemSetValue(1), 0);
    ASSERT_EQ(ConfigSemWait(), 0);
    int semId = ConfigSemId();
    EXPECT_EQ(semctl(semId, 0, GETVAL), 0);
    ASSERT_EQ(ConfigSemPost(), 0);
    EXPECT_EQ(semctl(semId, 0, GETVAL), 1);
    ASSERT_EQ(ConfigSemRemove(), 0);
    std::string id = std::to_string(semId);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Semaphore id:" + id +
                                                          "\nSemaphore Set Value:1\nSemaphore Wait\n"
                                                          "Semaphore Post\nKill Semaphore id:" +
                                                          id + "\n");
    EXPECT_LT(semget(kConfigSemKey, 0, 0), 0);
}

TEST_F(SemUtilTest, ErrorPaths) {
    struct Case {
        int (*call)(SemHandl_t);
        const char *message;
    };
    const Case cases[] = {
        {SemWait, "Error: SemWait: Invalid Semaphore handler\n"},
        {SemRelease, "Error: SemRelease: Invalid Semaphore handler\n"},
        {DestroySem, "Error: DestroySem: Invalid Semaphore handler\n"},
    };
    for (const Case &c : cases) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(c.call(nullptr), -1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
    }
    // No semaphore set: every operation fails with its own error text.
    testing::internal::CaptureStderr();
    EXPECT_EQ(ConfigSemSetValue(1) + ConfigSemWait() + ConfigSemPost() + ConfigSemRemove(), -4);
    std::string err = testing::internal::GetCapturedStderr();
    for (const char *text : {"Sem init: ", "Sem Wait operation: ", "Sem Post operation: ", "Sem kill: "}) {
        EXPECT_NE(err.find(text), std::string::npos) << text << " in " << err;
    }
}

}  // namespace
