// Stream ring reader: attaches the encoder's ring segments and its control
// queue, runs one reader thread per (consumer type, channel) and hands every
// good frame to the consumer's FrameCallback, payload in place.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// The 64-byte header in front of every frame of a ring (little-endian).
struct AVDataInfo {
    uint32_t AVDataCheck;    // AVDataCheck
    uint32_t SerialNumber;   // SerialNumber
    int32_t AVDataLen;       // AVDataLen
    uint32_t PublisherWord;  // publisher's word at offset 12
    uint32_t AVSource;       // AVSource: 0 video, 1 audio
    uint32_t EndFlag;        // EndFlag
    uint32_t TimeStamp;      // TimeStamp (ms)
    uint8_t KeyFrameFlag;    // KeyFrameFlag
    uint8_t Reserved[35];    // publisher's bytes 29..63
};
static_assert(sizeof(AVDataInfo) == 64);
static_assert(offsetof(AVDataInfo, SerialNumber) == 4);
static_assert(offsetof(AVDataInfo, AVDataLen) == 8);
static_assert(offsetof(AVDataInfo, PublisherWord) == 12);
static_assert(offsetof(AVDataInfo, AVSource) == 16);
static_assert(offsetof(AVDataInfo, EndFlag) == 20);
static_assert(offsetof(AVDataInfo, TimeStamp) == 24);
static_assert(offsetof(AVDataInfo, KeyFrameFlag) == 28);
static_assert(offsetof(AVDataInfo, Reserved) == 29);

inline constexpr uint32_t kAVDataCheckWord = 0x12345678;
inline constexpr uint32_t AV_RINGBUFFER_FLAG_PAUSE = 0xFD;
inline constexpr uint32_t kAVEndFlagFrame = 0xFE;
inline constexpr uint32_t kAVEndFlagWrap = 0xFF;
inline constexpr uint32_t kAVSourceVideo = 0;
inline constexpr uint32_t kAVSourceAudio = 1;

// Channels (VideoIndex) and their ring segments.
inline constexpr uint32_t kAVChannelCount = 4;
inline constexpr uint32_t kAVVideoChannelCount = 3;
inline constexpr uint32_t kAVTalkChannel = 3;
inline constexpr size_t kAVRecordSlack = sizeof(AVDataInfo);
inline constexpr key_t kAVStreamShmKey[kAVChannelCount] = {0x61766C79, 0x61766C7A, 0x61766C7B, 0x61766D79};
inline constexpr int32_t kAVStreamCapacity[kAVChannelCount] = {0x400000, 0x100000, 0x100000, 0x20000};
inline constexpr size_t AVStreamSegmentSize(uint32_t index) {
    return kAVStreamCapacity[index] + kAVRecordSlack;
}

// Control queue and its commands.
inline constexpr key_t kAVStreamCtrlQueueKey = 0x61766C79;
inline constexpr key_t kAVTalkCtrlQueueKey = 0x61766D79;
inline constexpr long kAVStreamMsgTypeEncoder = 1;
inline constexpr uint32_t kAVStreamCmdStartPos = 0x2001;
inline constexpr uint32_t kAVStreamCmdLastIFrame = 0x2002;
inline constexpr uint32_t kAVStreamCmd2003 = 0x2003;
inline constexpr uint32_t kAVStreamCmd4001 = 0x4001;
inline constexpr uint32_t kMsgAVTypeMin = 2;
inline constexpr uint32_t kMsgAVTypeMax = 16;

inline constexpr int kAVStreamBadArgument = 102;
inline constexpr int kAVStreamShmOpenFail = 103;
inline constexpr int kAVStreamQueueOpenFail = 104;
inline constexpr int kAVStreamNullBuffer = 106;

// One control request or reply: the type word and a 44-byte body.
struct AVStreamCtrlMsg {
    long MsgType;        // MsgType: 1 to the encoder, the consumer's MsgAVType back
    uint32_t ReplyType;  // ReplyType (the consumer's MsgAVType)
    uint32_t Command;    // Command
    uint32_t Channel;    // Channel (VideoIndex)
    int32_t Value;       // Value: 0, the position in the reply
    uint8_t Unused[28];  // Unused
};
inline constexpr size_t kAVStreamCtrlBodySize = 44;
static_assert(offsetof(AVStreamCtrlMsg, Unused) + sizeof(AVStreamCtrlMsg::Unused) -
                  offsetof(AVStreamCtrlMsg, ReplyType) ==
              kAVStreamCtrlBodySize);
static_assert(offsetof(AVStreamCtrlMsg, Value) - offsetof(AVStreamCtrlMsg, ReplyType) == 12);

// Consumer of frames: (AVSource, channel, payload in the segment, header copy).
typedef int (*FrameCallback)(uint32_t source, uint32_t channel, uint8_t *data, AVDataInfo *info);
// Asked before every record; below 1 means the channel is not to be read now.
typedef int (*StreamStatusFunc)(uint32_t channel);

int GetAVStreamInit(uint32_t MsgAVType, FrameCallback callback, StreamStatusFunc statusFunc);
int GetAVControlInit();
int AVStreamStart(uint32_t MsgAVType, uint32_t VideoIndex);
int AVStreamControlReset();

// One request on the control queue; the reply lands in msg (Value holds the
// position). 102 bad arguments, 106 null buffer, else 0.
int AVStreamControlRequest(uint32_t command, uint32_t MsgAVType, uint32_t VideoIndex, AVStreamCtrlMsg *msg);

// Resynchronisation: asks for the newest key frame until one is found.
int GetLastIFrame(uint8_t *base, uint32_t MsgAVType, uint32_t VideoIndex, uint32_t lastSerial);

// Clears the run flag of a pair and waits until its thread has ended. The
// daemon never stops its readers; tests and tools do.
int AVStreamStop(uint32_t MsgAVType, uint32_t VideoIndex);

// Test hooks: the reader's sleeps (in ms) go through this function (nullptr
// restores the real sleep); and a full reset of the registrations after
// stopping every reader.
void AVStreamSetSleepForTest(void (*sleepMs)(uint32_t ms));
void AVStreamResetForTest();
