// The encoder request channel (queue 0x61766C8A): open/forget, the generic
// request of the family and the force-I-frame request sent when a recording
// starts.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

inline constexpr key_t kAVServerCtrlQueueKey = 0x61766C8A;
inline constexpr long kAVServerMsgTypeRequest = 1;  // to the encoder
inline constexpr long kAVServerMsgTypeReply = 2;    // every reply of this channel
inline constexpr uint32_t kAVServerCmdForceIFrame = 0x2010;
inline constexpr int kAVServerQueueOpenFail = 104;

// One request or reply: the type word (4 bytes on the 32-bit target) and a
// 32-byte body.
struct AVServerMsg {
    long MsgType;          // MsgType
    uint32_t ReplyType;    // ReplyType
    uint32_t Command;      // Command
    uint32_t Argument;     // Argument (VideoType for 0x2010)
    int32_t Result;        // Result
    uint8_t Reserved[16];  // Reserved
};
inline constexpr size_t kAVServerMsgBodySize = 32;
static_assert(offsetof(AVServerMsg, Reserved) + sizeof(AVServerMsg::Reserved) -
                  offsetof(AVServerMsg, ReplyType) ==
              kAVServerMsgBodySize);
static_assert(offsetof(AVServerMsg, Result) - offsetof(AVServerMsg, ReplyType) == 12);

// Opens the queue once (flag kept); 104 when it cannot be had.
int AVServerCtrlQueueOpen();
// Forgets the queue: opened flag 0, identifier -1.
int AVServerCtrlQueueForget();
// The queue identifier, -1 when not open.
int AVServerCtrlQueueId();

// Sends one request of the family and returns the reply's result word, or
// 104 when no queue can be had.
int AVServerRequest(uint32_t command, uint32_t argument);

// Asks the encoder for an immediate key frame on video stream VideoType.
int AVServerVideoForceIFrame(int VideoType);
