#include "ipc/av_stream.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "common/log.h"
#include "common/nal_unit.h"
#include "ipc/sysv_ipc.h"

namespace {

constexpr uint32_t kTypeSlots = kMsgAVTypeMax + 1;
constexpr uint32_t kCheckMissLimit = 101;
constexpr uint32_t kUnknownFlagLimit = 50;
constexpr uint32_t kSerialBehindLimit = 49;
constexpr uint32_t kSerialJumpGap = 31;
constexpr uint32_t kSerialJumpLimit = 10;
constexpr uint32_t kStatusFailLimit = 99;
constexpr uint32_t kStartSleepMs = 500;
constexpr uint32_t kAttachSleepMs = 20;
constexpr uint32_t kStatusSleepMs = 50;
constexpr uint32_t kSeekSleepMs = 1;
constexpr uint32_t kCheckMissSleepMs = 4;
constexpr uint32_t kFlagWaitSleepMs = 5;
constexpr uint32_t kSerialBehindSleepMs = 8;
constexpr uint32_t kKeyFrameSleepMs = 10;
constexpr uint32_t kPauseSleepMs = 500;
constexpr int32_t kTalkLengthLimitPrinted = 0x100000;
// The reader thread's name, and the function every log line of the reader
// names (its helpers included): field logs are searched by it.
constexpr const char kReaderFunction[] = "AVStreamGetAVDataThread";

// Process-wide control state.
struct StreamSysInfo {
    std::atomic<int> InitFlag{0};                        // init flag
    std::atomic<int> StreamSharememID[kAVChannelCount];  // StreamSharememID
    std::atomic<int> MsgId{-1};                          // control queue
};
StreamSysInfo gGetAVStreamSysInfo;

struct AVStreamThreadArg {
    uint32_t MsgAVType;   // MsgAVType
    uint32_t VideoIndex;  // VideoIndex
};

struct AVStreamPair {
    pthread_t Thread{};                     // reader thread
    std::atomic<uint32_t> ThreadActive{0};  // the thread handle is set
    std::atomic<uint32_t> RunFlag{0};       // run flag
    AVStreamThreadArg Arg{};                // argument block
};

std::atomic<FrameCallback> gFrameCallback[kTypeSlots];
std::atomic<StreamStatusFunc> gTransFormStatusFunc[kTypeSlots];
std::atomic<uint32_t> gAVStreamStarted{0};
AVStreamPair gAVStreamPair[kTypeSlots][kAVChannelCount];

void RealSleepMs(uint32_t ms) { usleep(ms * 1000); }
std::atomic<void (*)(uint32_t)> gSleepMs{RealSleepMs};
void SleepMs(uint32_t ms) { gSleepMs.load(std::memory_order_relaxed)(ms); }

bool TypeInRange(uint32_t type) { return type >= kMsgAVTypeMin && type <= kMsgAVTypeMax; }
bool IndexInRange(uint32_t index) { return index < kAVChannelCount; }

uint32_t RunFlag(uint32_t type, uint32_t index) {
    return gAVStreamPair[type][index].RunFlag.load(std::memory_order_relaxed);
}

void ResetSysInfo() {
    gGetAVStreamSysInfo.InitFlag.store(0, std::memory_order_relaxed);
    for (auto &id : gGetAVStreamSysInfo.StreamSharememID) id.store(-1, std::memory_order_relaxed);
    gGetAVStreamSysInfo.MsgId.store(-1, std::memory_order_relaxed);
}

bool StartsWith(const uint8_t *bytes, const uint8_t *prefix, size_t length) {
    return memcmp(bytes, prefix, length) == 0;
}

bool IsJpeg(const uint8_t *payload) { return payload[0] == 0xFF && payload[1] == 0xD8; }

// An H.265 VPS that does not also read as an H.264 slice, IDR, SPS or PPS.
bool IsH265Vps(uint8_t nal) {
    return !H264PictureOrParamSet(H264NalType(nal)) && H265NalType(nal) == kH265NalVps;
}

// The reader thread's own state.
struct AVStreamReader {
    uint32_t MsgAVType;         // MsgAVType
    uint32_t VideoIndex;        // VideoIndex
    uint8_t *Base;              // attached segment
    int32_t VideoPos;           // current position, -1 = ask the encoder
    uint32_t OldSerialNumber;   // last delivered serial, 0 = none
    AVDataInfo Info;            // private copy of the current header
    int PauseFlag;              // pause marker written
    uint32_t CheckMiss;         // check-word misses
    uint32_t UnknownFlagWait;   // unknown-flag waits
    uint32_t SerialBehindWait;  // serial-behind waits
    uint32_t SerialJumpSeen;    // serial-jump sightings
    uint32_t StatusFail;        // status failures
};

int32_t Capacity(const AVStreamReader &r) { return kAVStreamCapacity[r.VideoIndex]; }

void Resync(AVStreamReader &r) {
    r.VideoPos = GetLastIFrame(r.Base, r.MsgAVType, r.VideoIndex, r.OldSerialNumber);
}

void ClearWaits(AVStreamReader &r) {
    r.PauseFlag = 0;
    r.CheckMiss = 0;
    r.UnknownFlagWait = 0;
}

void ExitThread(AVStreamReader *r, uint32_t type, uint32_t index) {
    if (r != nullptr && r->Base != nullptr) shmdt(r->Base);
    AVStreamPair &pair = gAVStreamPair[type][index];
    pthread_detach(pthread_self());
    pair.ThreadActive.store(0, std::memory_order_release);
}

void LogExit(const AVStreamReader &r) {
    LogTrace("%s %d: AVStreamGetAVDataThread %d %d exit!\n", kReaderFunction, __LINE__, r.MsgAVType,
             r.VideoIndex);
}

// Argument checks at thread start; false ends the thread.
bool ReaderArgumentsValid(const AVStreamThreadArg &arg) {
    if (arg.VideoIndex > kAVTalkChannel) {
        LogTrace("%s %d: VideoIndex %d is out of range!\n", kReaderFunction, __LINE__, arg.VideoIndex);
        LogTrace("%s %d: AVStreamGetAVDataThread %d %d exit!\n", kReaderFunction, __LINE__, arg.MsgAVType,
                 arg.VideoIndex);
        return false;
    }
    if (!TypeInRange(arg.MsgAVType)) {
        LogTrace("%s %d: MsgAVType %d is out of range!\n", kReaderFunction, __LINE__, arg.MsgAVType);
        LogTrace("%s %d: AVStreamGetAVDataThread %d %d exit!\n", kReaderFunction, __LINE__, arg.MsgAVType,
                 arg.VideoIndex);
        return false;
    }
    int shmId = gGetAVStreamSysInfo.StreamSharememID[arg.VideoIndex].load(std::memory_order_relaxed);
    if (shmId < 0) {
        LogTrace("%s %d: StreamSysInfo->StreamSharememID[%d] %d < 0\n", kReaderFunction, __LINE__,
                 arg.VideoIndex, shmId);
        return false;
    }
    return true;
}

bool Attach(AVStreamReader &r) {
    int shmId = gGetAVStreamSysInfo.StreamSharememID[r.VideoIndex].load(std::memory_order_relaxed);
    void *base = shmat(shmId, nullptr, 0);
    if (base == nullptr || base == reinterpret_cast<void *>(-1)) {
        LogTrace("%s %d: pAVData = NULL\n", kReaderFunction, __LINE__);
        return false;
    }
    r.Base = static_cast<uint8_t *>(base);
    return true;
}

// False when the channel is not to be read now (reader back to seeking).
bool StatusAllowsReading(AVStreamReader &r) {
    StreamStatusFunc status = gTransFormStatusFunc[r.MsgAVType].load(std::memory_order_relaxed);
    if (status == nullptr || status(r.VideoIndex) >= 1) return true;
    if (++r.StatusFail > kStatusFailLimit) {
        int result = status(r.VideoIndex);
        LogTrace("%s %d: gTransFormStatusFunc[%d](%d) == %d\n", kReaderFunction, __LINE__, r.MsgAVType,
                 r.VideoIndex, result);
        r.StatusFail = 0;
    }
    r.OldSerialNumber = 0;
    r.VideoPos = -1;
    SleepMs(kStatusSleepMs);
    return false;
}

int32_t AskPosition(uint32_t command, uint32_t type, uint32_t index) {
    AVStreamCtrlMsg msg;
    AVStreamControlRequest(command, type, index, &msg);
    return msg.Value;
}

// Asks where a new reader starts until the answer lies in 0..capacity.
void SeekStart(AVStreamReader &r) {
    while (RunFlag(r.MsgAVType, r.VideoIndex) != 0) {
        LogTrace("%s %d: MsgAVType = %d VideoIndex = %d\n", kReaderFunction, __LINE__, r.MsgAVType,
                 r.VideoIndex);
        int32_t pos = AskPosition(kAVStreamCmdStartPos, r.MsgAVType, r.VideoIndex);
        if (r.VideoIndex == 0) LogTrace("%s %d: VideoPos = %d\n", kReaderFunction, __LINE__, pos);
        if (pos >= 0 && pos <= Capacity(r)) {
            r.VideoPos = pos;
            return;
        }
        LogTrace("%s %d: VideoIndex = %d\n", kReaderFunction, __LINE__, r.VideoIndex);
        SleepMs(kSeekSleepMs);
    }
}

bool CheckOutOfPos(const AVStreamReader &r) {
    if (r.VideoPos < Capacity(r)) return false;
    LogTrace("%s %d iVideoIndex = %d VideoPos = %d\n", __func__, __LINE__, r.VideoIndex, r.VideoPos);
    return true;
}

// Outcome of one examined record.
enum class Step { Next, Exit };

Step OnCheckMiss(AVStreamReader &r) {
    if (++r.CheckMiss < kCheckMissLimit) {
        SleepMs(kCheckMissSleepMs);
        return Step::Next;
    }
    LogTrace("%s %d: VideoIndex = %d VideoPos = %d AVDataCheck == %d\n", kReaderFunction, __LINE__,
             r.VideoIndex, r.VideoPos, r.Info.AVDataCheck);
    Resync(r);
    r.OldSerialNumber = 0;
    r.CheckMiss = 0;
    return RunFlag(r.MsgAVType, r.VideoIndex) == 0 ? Step::Exit : Step::Next;
}

void OnPause(AVStreamReader &r) {
    if (r.PauseFlag == 0) {
        LogTrace("%s %d: Endflag == %d\n", kReaderFunction, __LINE__, r.Info.EndFlag);
        AVDataInfo marker = r.Info;
        marker.SerialNumber = 0;
        marker.AVDataLen = 0;
        marker.PublisherWord = 0;
        memcpy(r.Base, &marker, sizeof marker);
    }
    if (r.VideoIndex == 0) LogTrace("%s %d: VideoPos = %d\n", kReaderFunction, __LINE__, 0);
    r.VideoPos = 0;
    r.CheckMiss = 0;
    r.OldSerialNumber = 0;
    SleepMs(kPauseSleepMs);
    r.PauseFlag = 1;
}

void OnWrap(AVStreamReader &r) {
    LogTrace("%s %d: MsgAVType = %d  Index = %d Endflag == %d\n", kReaderFunction, __LINE__, r.MsgAVType,
             r.VideoIndex, r.Info.EndFlag);
    r.VideoPos = 0;
    r.CheckMiss = 0;
    if (r.VideoIndex == 0) LogTrace("%s %d: VideoPos = %d\n", kReaderFunction, __LINE__, 0);
}

void OnUnknownFlag(AVStreamReader &r) {
    SleepMs(kFlagWaitSleepMs);
    if (++r.UnknownFlagWait < kUnknownFlagLimit) {
        r.CheckMiss = 0;
        return;
    }
    LogTrace("%s %d: VideoIndex = %d VideoPos = %d Endflag == %d\n", kReaderFunction, __LINE__, r.VideoIndex,
             r.VideoPos, r.Info.EndFlag);
    r.UnknownFlagWait = 0;
    Resync(r);
    r.OldSerialNumber = 0;
    r.CheckMiss = 0;
}

// A payload that would begin before its header's end or run past the
// segment is no frame the encoder wrote (a torn or stray header); handing
// it over would let the consumer read outside the segment.
bool PayloadOutsideSegment(const AVStreamReader &r) {
    int64_t end = int64_t{r.VideoPos} + static_cast<int64_t>(kAVRecordSlack) + r.Info.AVDataLen;
    return r.Info.AVDataLen < 0 || end > static_cast<int64_t>(AVStreamSegmentSize(r.VideoIndex));
}

// True when the record's length is at or above the channel's limit, or its
// payload does not lie inside the segment.
bool LengthTooLarge(AVStreamReader &r) {
    if (r.Info.AVDataLen < Capacity(r) && !PayloadOutsideSegment(r)) return false;
    r.CheckMiss = 0;
    SleepMs(kFlagWaitSleepMs);
    int32_t printed = r.VideoIndex == kAVTalkChannel ? kTalkLengthLimitPrinted : Capacity(r);
    LogTrace("%s %d: pDataInfo->AVDataLen = %d up to Max %d\n", kReaderFunction, __LINE__, r.Info.AVDataLen,
             printed);
    return true;
}

int32_t NextRecordPos(const AVStreamReader &r) {
    return r.VideoPos + static_cast<int32_t>(kAVRecordSlack) + r.Info.AVDataLen;
}

// The record after the current one begins a slice or an SPS (H.264).
bool NextRecordStartsPicture(const AVStreamReader &r) {
    int64_t next = NextRecordPos(r);
    int64_t nalAt = next + static_cast<int64_t>(kAVRecordSlack + kNalHeaderAt);
    if (next < 0 || nalAt >= static_cast<int64_t>(AVStreamSegmentSize(r.VideoIndex))) return false;
    const uint8_t *payload = r.Base + next + kAVRecordSlack;
    int nal = H264NalType(payload[kNalHeaderAt]);
    return StartsWith(payload, kNalStartCode, sizeof kNalStartCode) &&
           (nal == kH264NalSlice || nal == kH264NalSps);
}

void OnEqualSerial(AVStreamReader &r) {
    LogTrace("%s %d: VideoIndex = %d pos = %d pDataInfo->SerialNumber %d oldSerialNumber %d\n",
             kReaderFunction, __LINE__, r.VideoIndex, r.VideoPos, r.Info.SerialNumber, r.OldSerialNumber);
    if (NextRecordStartsPicture(r)) {
        r.VideoPos = NextRecordPos(r);
        ClearWaits(r);
        return;
    }
    r.PauseFlag = 0;
    Resync(r);
    r.CheckMiss = 0;
    r.UnknownFlagWait = 0;
}

void OnSerialBehind(AVStreamReader &r) {
    ++r.SerialBehindWait;
    SleepMs(kSerialBehindSleepMs);
    if (r.SerialBehindWait > kSerialBehindLimit) {
        LogTrace("%s %d: VideoIndex = %d VideoPos = %d Endflag == %d\n", kReaderFunction, __LINE__,
                 r.VideoIndex, r.VideoPos, r.Info.EndFlag);
        r.PauseFlag = 0;
        r.SerialBehindWait = 0;
        r.UnknownFlagWait = 0;
        Resync(r);
        r.OldSerialNumber = 0;
        r.CheckMiss = 0;
        return;
    }
    ClearWaits(r);
}

void OnSerialJump(AVStreamReader &r, uint32_t gap) {
    if (++r.SerialJumpSeen <= kSerialJumpLimit) {
        ClearWaits(r);
        r.SerialBehindWait = 0;
        return;
    }
    r.SerialBehindWait = 0;
    r.PauseFlag = 0;
    LogTrace("%s %d: MsgAVType = %d index = %d sub = %u - %u = %u pos = %u \n", kReaderFunction, __LINE__,
             r.MsgAVType, r.VideoIndex, r.Info.SerialNumber, r.OldSerialNumber, gap,
             static_cast<uint32_t>(r.VideoPos));
    r.UnknownFlagWait = 0;
    Resync(r);
    LogTrace("%s %d: VideoPos = %d\n", kReaderFunction, __LINE__, r.VideoPos);
    r.OldSerialNumber = 0;
    r.CheckMiss = 0;
    SleepMs(kFlagWaitSleepMs);
}

void Deliver(AVStreamReader &r) {
    FrameCallback callback = gFrameCallback[r.MsgAVType].load(std::memory_order_relaxed);
    if (callback != nullptr) {
        callback(r.Info.AVSource, r.VideoIndex, r.Base + r.VideoPos + kAVRecordSlack, &r.Info);
    }
    r.OldSerialNumber = r.Info.SerialNumber;
    ClearWaits(r);
    r.SerialBehindWait = 0;
    r.SerialJumpSeen = 0;
    r.VideoPos = NextRecordPos(r);
}

// The serial check of a complete frame; delivers it when it is acceptable.
void OnFrame(AVStreamReader &r) {
    uint32_t serial = r.Info.SerialNumber;
    uint32_t last = r.OldSerialNumber;
    if (serial == last) return OnEqualSerial(r);
    if (last == 0) return Deliver(r);
    if (serial < last) return OnSerialBehind(r);
    uint32_t gap = serial - last;
    if (gap >= kSerialJumpGap) return OnSerialJump(r, gap);
    if (gap > 1) {
        LogTrace("%s %d:MsgAVType = %d VideoIndex = %d sub = %u - %u = %u pos = %u \n", kReaderFunction,
                 __LINE__, r.MsgAVType, r.VideoIndex, serial, last, gap, static_cast<uint32_t>(r.VideoPos));
    }
    Deliver(r);
}

// One round of the reader loop.
Step ReadOnce(AVStreamReader &r) {
    if (RunFlag(r.MsgAVType, r.VideoIndex) == 0) return Step::Exit;
    if (r.Base == nullptr && !Attach(r)) {
        SleepMs(kAttachSleepMs);
        return Step::Next;
    }
    if (!StatusAllowsReading(r)) return Step::Next;
    if (r.VideoPos == -1) {
        SeekStart(r);
        if (r.VideoPos == -1) return Step::Next;  // stopped while asking
    } else if (r.VideoPos < 0) {
        r.OldSerialNumber = 0;
        LogTrace("%s %d VideoPos = %d\n", kReaderFunction, __LINE__, r.VideoPos);
        r.VideoPos = GetLastIFrame(r.Base, r.MsgAVType, r.VideoIndex, 0);
        return Step::Next;
    }
    if (CheckOutOfPos(r)) return Step::Next;
    memcpy(&r.Info, r.Base + r.VideoPos, sizeof r.Info);
    if (r.Info.AVDataCheck != kAVDataCheckWord) return OnCheckMiss(r);
    switch (r.Info.EndFlag) {
        case AV_RINGBUFFER_FLAG_PAUSE:
            OnPause(r);
            return Step::Next;
        case kAVEndFlagWrap:
            OnWrap(r);
            return Step::Next;
        case kAVEndFlagFrame:
            break;
        default:
            OnUnknownFlag(r);
            return Step::Next;
    }
    if (!LengthTooLarge(r)) OnFrame(r);
    return Step::Next;
}

void *AVStreamGetAVDataThread(void *argument) {
    prctl(PR_SET_NAME, kReaderFunction);
    AVStreamThreadArg arg = *static_cast<AVStreamThreadArg *>(argument);
    LogTrace("%s %d: type = %d index = %d\n", __func__, __LINE__, arg.MsgAVType, arg.VideoIndex);
    if (!ReaderArgumentsValid(arg)) {
        if (IndexInRange(arg.VideoIndex) && TypeInRange(arg.MsgAVType))
            ExitThread(nullptr, arg.MsgAVType, arg.VideoIndex);
        return nullptr;
    }
    AVStreamReader r{};
    r.MsgAVType = arg.MsgAVType;
    r.VideoIndex = arg.VideoIndex;
    r.VideoPos = -1;
    while (ReadOnce(r) == Step::Next) {
    }
    LogExit(r);
    ExitThread(&r, r.MsgAVType, r.VideoIndex);
    return nullptr;
}

}  // namespace

int GetAVStreamInit(uint32_t MsgAVType, FrameCallback callback, StreamStatusFunc statusFunc) {
    LogTrace("%s %d:type = %d func = %p\n", __func__, __LINE__, MsgAVType,
             reinterpret_cast<void *>(callback));
    if (!TypeInRange(MsgAVType)) return kAVStreamBadArgument;
    gTransFormStatusFunc[MsgAVType].store(statusFunc, std::memory_order_relaxed);
    gFrameCallback[MsgAVType].store(callback, std::memory_order_relaxed);
    if (gAVStreamStarted.load(std::memory_order_relaxed) != 0) return 0;
    for (uint32_t type = 0; type < kTypeSlots; ++type) {
        gFrameCallback[type].store(nullptr, std::memory_order_relaxed);
        for (auto &pair : gAVStreamPair[type]) {
            pair.ThreadActive.store(0, std::memory_order_relaxed);
            pair.RunFlag.store(0, std::memory_order_relaxed);
        }
    }
    gFrameCallback[MsgAVType].store(callback, std::memory_order_relaxed);
    gAVStreamStarted.store(1, std::memory_order_relaxed);
    return GetAVControlInit();
}

int GetAVControlInit() {
    if (gGetAVStreamSysInfo.InitFlag.load(std::memory_order_relaxed) != 0) return 0;
    LogTrace("%s %d\n", __func__, __LINE__);
    ResetSysInfo();
    for (uint32_t i = 0; i < kAVVideoChannelCount; ++i) {
        int shmId = IpcShareMemInit(kAVStreamShmKey[i], AVStreamSegmentSize(i));
        gGetAVStreamSysInfo.StreamSharememID[i].store(shmId, std::memory_order_relaxed);
        LogTrace("%s %d: gGetAVStreamSysInfo.StreamSharememID[%d] = %d \n", __func__, __LINE__, i, shmId);
        if (shmId < 0) {
            LogTrace("%s %d: IpcShareMemInit fail i = %d\n", __func__, __LINE__, i);
            ResetSysInfo();
            return kAVStreamShmOpenFail;
        }
    }
    int msgId = IpcMsgQueueOpen(kAVStreamCtrlQueueKey);
    gGetAVStreamSysInfo.MsgId.store(msgId, std::memory_order_relaxed);
    if (msgId < 0) return kAVStreamQueueOpenFail;
    gGetAVStreamSysInfo.InitFlag.store(1, std::memory_order_relaxed);
    return 0;
}

int AVStreamStart(uint32_t MsgAVType, uint32_t VideoIndex) {
    if (!IndexInRange(VideoIndex) || !TypeInRange(MsgAVType)) return kAVStreamBadArgument;
    AVStreamPair &pair = gAVStreamPair[MsgAVType][VideoIndex];
    pair.RunFlag.store(1, std::memory_order_relaxed);
    pair.Arg.MsgAVType = MsgAVType;
    pair.Arg.VideoIndex = VideoIndex;
    if (pair.ThreadActive.load(std::memory_order_acquire) != 0) return 0;
    // Channel 3 (talk audio) is read by the same loop; with its segment never
    // opened here, the thread ends at its argument checks.
    pair.ThreadActive.store(1, std::memory_order_relaxed);
    if (pthread_create(&pair.Thread, nullptr, AVStreamGetAVDataThread, &pair.Arg) != 0) {
        pair.ThreadActive.store(0, std::memory_order_relaxed);
    }
    SleepMs(kStartSleepMs);
    return 0;
}

int AVStreamControlReset() {
    ResetSysInfo();
    return 0;
}

int AVStreamControlRequest(uint32_t command, uint32_t MsgAVType, uint32_t VideoIndex, AVStreamCtrlMsg *msg) {
    if (!IndexInRange(VideoIndex) || !TypeInRange(MsgAVType)) return kAVStreamBadArgument;
    if (msg == nullptr) return kAVStreamNullBuffer;
    int msgId = gGetAVStreamSysInfo.MsgId.load(std::memory_order_relaxed);
    if (msgId < 0) {
        msgId = IpcMsgQueueOpen(kAVStreamCtrlQueueKey);
        gGetAVStreamSysInfo.MsgId.store(msgId, std::memory_order_relaxed);
    }
    memset(msg, 0, sizeof *msg);
    msg->MsgType = kAVStreamMsgTypeEncoder;
    msg->ReplyType = MsgAVType;
    msg->Command = command;
    msg->Channel = VideoIndex;
    msg->Value = 0;
    IpcMsgSendRecv(msgId, msg, kAVStreamCtrlBodySize, MsgAVType);
    return 0;
}

int GetLastIFrame(uint8_t *base, uint32_t MsgAVType, uint32_t VideoIndex, uint32_t lastSerial) {
    if (!IndexInRange(VideoIndex) || !TypeInRange(MsgAVType)) return -1;
    int32_t limit = kAVStreamCapacity[VideoIndex] - (VideoIndex == kAVTalkChannel ? 1 : 0);
    int32_t pos = -1;
    uint8_t nal = 0;
    while (RunFlag(MsgAVType, VideoIndex) != 0) {
        pos = AskPosition(kAVStreamCmdLastIFrame, MsgAVType, VideoIndex);
        // The position comes from the encoder: compared in 64 bits, so one
        // near INT32_MAX cannot wrap past the check.
        if (int64_t{pos} + static_cast<int64_t>(kAVRecordSlack + kNalHeaderAt) >= limit) continue;
        // A negative answer is no key frame either: it waits like one, so a
        // confused encoder is not asked again at once, over and over.
        if (pos < 0) {
            SleepMs(kKeyFrameSleepMs);
            if (RunFlag(MsgAVType, VideoIndex) == 0) break;
            continue;
        }
        const uint8_t *payload = base + pos + kAVRecordSlack;
        nal = payload[kNalHeaderAt];
        if (IsJpeg(payload)) break;
        uint32_t serial = 0;
        memcpy(&serial, base + pos + offsetof(AVDataInfo, SerialNumber), sizeof serial);
        if (lastSerial == 0 || serial > lastSerial) {
            if (IsH265Vps(nal)) {
                LogTrace("%s %d: 3516A nalu = 0x%02X\n", __func__, __LINE__, nal);
                break;
            }
            if (StartsWith(payload, kNalStartCode, sizeof kNalStartCode) && H264NalType(nal) == kH264NalSps) {
                LogTrace("%s %d: AVType = %d VideoIndex = %d VideoPos = %d\n", __func__, __LINE__, MsgAVType,
                         VideoIndex, pos);
                break;
            }
        }
        SleepMs(kKeyFrameSleepMs);
        if (RunFlag(MsgAVType, VideoIndex) == 0) break;
    }
    LogTrace("%s %d: VideoPos = %d nalu = 0x%02X\n", __func__, __LINE__, pos, H264NalType(nal));
    return pos;
}

int AVStreamStop(uint32_t MsgAVType, uint32_t VideoIndex) {
    if (!IndexInRange(VideoIndex) || !TypeInRange(MsgAVType)) return kAVStreamBadArgument;
    AVStreamPair &pair = gAVStreamPair[MsgAVType][VideoIndex];
    pair.RunFlag.store(0, std::memory_order_relaxed);
    while (pair.ThreadActive.load(std::memory_order_acquire) != 0) usleep(1000);
    return 0;
}

void AVStreamSetSleepForTest(void (*sleepMs)(uint32_t ms)) {
    gSleepMs.store(sleepMs != nullptr ? sleepMs : RealSleepMs, std::memory_order_relaxed);
}

void AVStreamResetForTest() {
    for (uint32_t type = kMsgAVTypeMin; type < kTypeSlots; ++type) {
        for (uint32_t index = 0; index < kAVChannelCount; ++index) AVStreamStop(type, index);
        gFrameCallback[type].store(nullptr, std::memory_order_relaxed);
        gTransFormStatusFunc[type].store(nullptr, std::memory_order_relaxed);
    }
    gAVStreamStarted.store(0, std::memory_order_relaxed);
    ResetSysInfo();
}
