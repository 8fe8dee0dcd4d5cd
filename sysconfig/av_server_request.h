// Encoder requests: small fixed requests to the encoder process over its
// control queue (one 32-bit argument, one 32-bit result), strictly one
// request then a blocking wait for the reply of type 2. The channel opens
// itself again on demand after a close.
#pragma once

#include <sys/types.h>

#include <cstdint>

inline constexpr key_t kAVServerMsgKey = 0x61766C8A;
inline constexpr long kAVServerRequestType = 1;
inline constexpr long kAVServerReplyType = 2;
inline constexpr int kAVServerQueueFail = 104;  // no queue could be had

// Request body, 32 bytes after the message type.
struct AVServerMsgBody {
    uint32_t replyType;    // 2
    uint32_t cmd;          // command 0x1001 ... 0x8001
    uint32_t arg;          // argument, 0 when none
    int32_t result;        // request: 0; reply: the encoder's result
    uint8_t reserved[16];  // 0
};
static_assert(sizeof(AVServerMsgBody) == 32);

struct AVServerMsgBuf {
    long msgType;          // 1 to the encoder, 2 back
    AVServerMsgBody body;  // body
};

// Opens the channel (looks the queue up, creates it when missing). 0, or
// 104 when no queue can be had. 0 at once when already open.
int AVServerMsgOpen();

// Forgets the channel: opened flag 0, identifier -1.
void AVServerMsgClose();

// Queue identifier, -1 while closed.
int AVServerMsgId();

// One encoder request: the reply's result word, or 104 when no queue can
// be had (nothing is sent then).
int AVServerRequest(uint32_t cmd, uint32_t arg);
