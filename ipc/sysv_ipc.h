// Thin wrappers over System V message queues and shared memory and over
// process-local recursive mutexes, shared by the stream reader, the small
// shared-memory blocks and the encoder requests.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstddef>

// Message queues. Sizes are message body sizes (without the type word).
int IpcMsgQueueOpen(key_t key);                                           // look up, else create 0666
int IpcMsgSend(int msgId, void *msg, size_t bodySize);                    // blocking msgsnd
ssize_t IpcMsgRecv(int msgId, void *msg, size_t bodySize, long msgType);  // blocking msgrcv
int IpcMsgSendRecv(int msgId, void *msg, size_t bodySize, long replyType);
int IpcMsgQueueRemove(int msgId);

// Shared memory.
int IpcShareMemInit(key_t key, size_t size);  // create 0777 at size, else look up with size 0; -1 on failure
int IpcShareMemRemoveByKey(key_t key);
int IpcShareMemRemove(int shmId);
// Attach, copy, detach. Read does not test the attach result; write only
// treats a null attach result as failure (and returns it).
int IpcShareMemRead(int shmId, size_t offset, void *buf, size_t length);
int IpcShareMemWrite(int shmId, size_t offset, const void *buf, size_t length);

// Process-local recursive mutexes.
int LinuxMutexCreate(pthread_mutex_t *mutex);
int LinuxMutexLock(pthread_mutex_t *mutex);
int LinuxMutexUnlock(pthread_mutex_t *mutex);
int LinuxMutexDestroy(pthread_mutex_t *mutex);
