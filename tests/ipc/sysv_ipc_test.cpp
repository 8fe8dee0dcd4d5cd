#include "ipc/sysv_ipc.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/shm.h>

#include <cstring>

#include "support/test_support.h"

namespace {

constexpr key_t kKey = 0x7E57;

struct TestMsg {
    long MsgType;
    uint32_t Body[3];
};

TEST(SysvIpc, QueueCreatedOnceAndRoundTrips) {
    REQUIRE_PRIVATE_IPC();
    int msgId = IpcMsgQueueOpen(kKey);
    ASSERT_GE(msgId, 0);
    EXPECT_EQ(IpcMsgQueueOpen(kKey), msgId);  // the existing queue is looked up
    struct msqid_ds ds {};
    ASSERT_EQ(msgctl(msgId, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.msg_perm.mode & 0777, 0666u);

    TestMsg reply{7, {1, 2, 3}};
    ASSERT_EQ(IpcMsgSend(msgId, &reply, sizeof reply.Body), 0);  // the answer waits in the queue
    TestMsg request{1, {9, 9, 9}};
    // Send-then-receive sends type 1 and takes the type-7 reply into the same buffer.
    EXPECT_EQ(IpcMsgSendRecv(msgId, &request, sizeof request.Body, 7), static_cast<int>(sizeof request.Body));
    EXPECT_EQ(request.MsgType, 7);
    EXPECT_EQ(request.Body[2], 3u);
    TestMsg left{};
    EXPECT_EQ(IpcMsgRecv(msgId, &left, sizeof left.Body, 1), static_cast<ssize_t>(sizeof left.Body));
    EXPECT_EQ(left.Body[0], 9u);

    EXPECT_EQ(IpcMsgQueueRemove(msgId), 0);
    EXPECT_LT(msgget(kKey, 0), 0);
}

TEST(SysvIpc, SegmentCreateOrLookUp) {
    REQUIRE_PRIVATE_IPC();
    // Identifier 0 (the first segment of a namespace) is never removed by
    // key; take it with another segment first.
    int first = shmget(IPC_PRIVATE, 64, IPC_CREAT | 0600);
    int shmId = IpcShareMemInit(kKey, 100);
    ASSERT_GE(shmId, 0);
    struct shmid_ds ds {};
    shmctl(shmId, IPC_STAT, &ds);
    EXPECT_EQ(ds.shm_perm.mode & 0777, 0777u);
    EXPECT_EQ(ds.shm_segsz, 100u);
    // Existing and smaller than asked: opened through the size-0 look-up.
    EXPECT_EQ(IpcShareMemInit(kKey, 4096), shmId);

    const char text[] = "ring";
    EXPECT_EQ(IpcShareMemWrite(shmId, 90, text, sizeof text), 0);
    char back[sizeof text] = {};
    EXPECT_EQ(IpcShareMemRead(shmId, 90, back, sizeof back), 0);
    EXPECT_STREQ(back, text);

    EXPECT_EQ(IpcShareMemRemoveByKey(kKey), 0);
    EXPECT_LT(shmget(kKey, 0, 0), 0);
    EXPECT_EQ(IpcShareMemRemoveByKey(kKey), 0);  // no segment: nothing to do
    IpcShareMemRemove(first);
}

TEST(SysvIpc, MutexIsRecursive) {
    pthread_mutex_t mutex;
    ASSERT_EQ(LinuxMutexCreate(&mutex), 0);
    EXPECT_EQ(LinuxMutexLock(&mutex), 0);
    EXPECT_EQ(LinuxMutexLock(&mutex), 0);
    EXPECT_EQ(LinuxMutexUnlock(&mutex), 0);
    EXPECT_EQ(LinuxMutexUnlock(&mutex), 0);
    EXPECT_NE(LinuxMutexUnlock(&mutex), 0);  // not held any more
    EXPECT_EQ(LinuxMutexDestroy(&mutex), 0);
}

// Error paths: a key that cannot be looked up, a removed queue.
TEST(SysvIpc, FailuresAreNegative) {
    REQUIRE_PRIVATE_IPC();
    int msgId = IpcMsgQueueOpen(kKey);
    IpcMsgQueueRemove(msgId);
    TestMsg msg{1, {}};
    EXPECT_LT(IpcMsgSend(msgId, &msg, sizeof msg.Body), 0);
    EXPECT_LT(IpcMsgRecv(msgId, &msg, sizeof msg.Body, 1), 0);
    // A private key of size 0 can neither be created nor looked up.
    EXPECT_EQ(IpcShareMemInit(IPC_PRIVATE, 0), -1);
}

}  // namespace
