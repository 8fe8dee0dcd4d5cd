#include "sysconfig/msg_util.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstdio>

int Msg_Init(key_t msgKey) {
    int qid = msgget(msgKey, 0);
    if (qid < 0) {
        qid = msgget(msgKey, IPC_CREAT | kMsgQueueMode);
        fprintf(stderr, "Creat queue id:%d\n", qid);
    }
    fprintf(stderr, "queue id:%d\n", qid);
    return qid;
}

int Msg_Send(int qid, void *pdata, int size) {
    if (pdata == nullptr || size < kMsgTypeSize) return -1;
    return msgsnd(qid, pdata, size - kMsgTypeSize, 0);
}

int Msg_Rsv(int qid, long msgType, void *pdata, int size) {
    if (pdata == nullptr || size < kMsgTypeSize) return -1;
    return static_cast<int>(msgrcv(qid, pdata, size - kMsgTypeSize, msgType, 0));
}

int Msg_Send_Rsv(int qid, long msgType, void *pdata, int size) {
    if (Msg_Send(qid, pdata, size) < 0) return -1;
    return Msg_Rsv(qid, msgType, pdata, size);
}

int Msg_Kill(int qid) {
    fprintf(stderr, "Kill queue id:%d\n", qid);
    return msgctl(qid, IPC_RMID, nullptr) < 0 ? -1 : 0;
}
