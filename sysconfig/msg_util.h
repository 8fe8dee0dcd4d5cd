// Message-queue primitives of the configuration channel. Message buffers
// start with a long type followed by the body; the length given to send and
// receive counts a 4-byte type plus the body, as the 32-bit camera lays the
// message out, so the body length is length - 4 on every build.
#pragma once

#include <sys/types.h>

inline constexpr int kMsgTypeSize = 4;
inline constexpr int kMsgQueueMode = 0666;

// Looks the queue up; creates it only when it does not exist. Returns the
// identifier or a negative value.
int Msg_Init(key_t msgKey);

// Blocking send / receive of the given type; msgsnd and msgrcv results.
int Msg_Send(int qid, void *pdata, int size);
int Msg_Rsv(int qid, long msgType, void *pdata, int size);

// Send, then (only when the send worked) receive into the same buffer.
int Msg_Send_Rsv(int qid, long msgType, void *pdata, int size);

// Removes the queue. 0 or -1.
int Msg_Kill(int qid);
