#include "ipc/sysv_ipc.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/shm.h>

#include <cstdint>
#include <cstring>

#include "common/log.h"

namespace {
constexpr int kQueueCreateMode = 0666;
constexpr int kSegmentCreateMode = 0777;
}  // namespace

int IpcMsgQueueOpen(key_t key) {
    int msgId = msgget(key, 0);
    if (msgId < 0) msgId = msgget(key, IPC_CREAT | kQueueCreateMode);
    return msgId;
}

int IpcMsgSend(int msgId, void *msg, size_t bodySize) { return msgsnd(msgId, msg, bodySize, 0); }

ssize_t IpcMsgRecv(int msgId, void *msg, size_t bodySize, long msgType) {
    return msgrcv(msgId, msg, bodySize, msgType, 0);
}

int IpcMsgSendRecv(int msgId, void *msg, size_t bodySize, long replyType) {
    IpcMsgSend(msgId, msg, bodySize);
    return static_cast<int>(IpcMsgRecv(msgId, msg, bodySize, replyType));
}

int IpcMsgQueueRemove(int msgId) {
    msgctl(msgId, IPC_RMID, nullptr);
    return 0;
}

int IpcShareMemInit(key_t key, size_t size) {
    int shmId = shmget(key, size, IPC_CREAT | kSegmentCreateMode);
    if (shmId < 0) shmId = shmget(key, 0, 0);
    return shmId < 0 ? -1 : shmId;
}

int IpcShareMemRemoveByKey(key_t key) {
    int shmId = shmget(key, 0, 0);
    if (shmId < 1) return 0;
    shmctl(shmId, IPC_RMID, nullptr);
    return 0;
}

int IpcShareMemRemove(int shmId) {
    shmctl(shmId, IPC_RMID, nullptr);
    return 0;
}

int IpcShareMemRead(int shmId, size_t offset, void *buf, size_t length) {
    auto *base = static_cast<uint8_t *>(shmat(shmId, nullptr, 0));
    memcpy(buf, base + offset, length);
    return shmdt(base);
}

int IpcShareMemWrite(int shmId, size_t offset, const void *buf, size_t length) {
    auto *base = static_cast<uint8_t *>(shmat(shmId, nullptr, 0));
    if (base == nullptr) return 0;
    memcpy(base + offset, buf, length);
    return shmdt(base);
}

int LinuxMutexCreate(pthread_mutex_t *mutex) {
    pthread_mutexattr_t attr;
    int ret = pthread_mutexattr_init(&attr);
    if (ret != 0) {
        LogError("create mutex attribute error. msg:%s", strerror(ret));
        return ret;
    }
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(mutex, &attr);
    return 0;
}

int LinuxMutexLock(pthread_mutex_t *mutex) {
    int ret = pthread_mutex_lock(mutex);
    if (ret != 0) return LogError("ret = %d linux_mutex = %p\n", ret, static_cast<void *>(mutex));
    return 0;
}

int LinuxMutexUnlock(pthread_mutex_t *mutex) { return pthread_mutex_unlock(mutex); }

int LinuxMutexDestroy(pthread_mutex_t *mutex) {
    pthread_mutex_destroy(mutex);
    return 0;
}
