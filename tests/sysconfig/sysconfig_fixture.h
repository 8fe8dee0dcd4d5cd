// Shared fixture of the configuration-access tests: every test starts with
// no configuration objects in its IPC namespace and a process that has not
// set up its channel, and leaves the same behind.
#pragma once

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include "support/test_support.h"
#include "sysconfig/sem_util.h"
#include "sysconfig/share_mem.h"
#include "sysconfig/sys_drv.h"
#include "sysconfig/sys_info.h"

inline void RemoveSegment(key_t key) {
    int id = shmget(key, 0, 0);
    if (id >= 0) shmctl(id, IPC_RMID, nullptr);
}

inline void RemoveConfigIpc() {
    SysInfoDetach();
    SysDrvExit();
    RemoveSegment(kSysInfoShmKey);
    RemoveSegment(kSysTransferKey);
    int qid = msgget(kSysTransferKey, 0);
    if (qid >= 0) msgctl(qid, IPC_RMID, nullptr);
    if (ConfigSemId() >= 0) ConfigSemRemove();
    int semId = semget(kConfigSemKey, 0, 0);
    if (semId >= 0) semctl(semId, 0, IPC_RMID);
}

class SysconfigTest : public testing::Test {
protected:
    void SetUp() override {
        REQUIRE_PRIVATE_IPC();
        RemoveConfigIpc();
    }
    void TearDown() override {
        if (InPrivateIpcNamespace()) RemoveConfigIpc();
    }
};
