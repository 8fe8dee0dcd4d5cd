#include "ipc/av_ring_writer.h"

#include <sys/shm.h>

#include <cerrno>
#include <cstring>

#include "ipc/sysv_ipc.h"

namespace {
constexpr int32_t kHeaderSize = static_cast<int32_t>(sizeof(AVDataInfo));

// Records are not aligned: header words are stored byte-wise, with a release
// fence before the word that publishes them.
void StoreWord(AVRingWriter *ring, int32_t pos, size_t field, uint32_t value) {
    std::atomic_thread_fence(std::memory_order_release);
    memcpy(ring->Base + pos + field, &value, sizeof value);
}

// A header without payload whose EndFlag is written last.
void WriteMarker(AVRingWriter *ring, int32_t pos, uint32_t endFlag) {
    AVDataInfo marker{};
    marker.AVDataCheck = kAVDataCheckWord;
    marker.EndFlag = 0;
    memcpy(ring->Base + pos, &marker, sizeof marker);
    StoreWord(ring, pos, offsetof(AVDataInfo, EndFlag), endFlag);
}

// Marks the slot after a new record as not yet written, so a reader that
// follows the writer waits there instead of reading stale bytes.
void MarkUnwritten(AVRingWriter *ring, int32_t pos) {
    StoreWord(ring, pos, offsetof(AVDataInfo, AVDataCheck), 0);
}
}  // namespace

int AVRingWriterOpen(AVRingWriter *ring, uint32_t VideoIndex) {
    if (VideoIndex >= kAVChannelCount) return -1;
    ring->VideoIndex = VideoIndex;
    ring->Capacity = kAVStreamCapacity[VideoIndex];
    ring->ShmId = IpcShareMemInit(kAVStreamShmKey[VideoIndex], AVStreamSegmentSize(VideoIndex));
    if (ring->ShmId < 0) return -1;
    void *base = shmat(ring->ShmId, nullptr, 0);
    if (base == reinterpret_cast<void *>(-1)) return -1;
    ring->Base = static_cast<uint8_t *>(base);
    memset(ring->Base, 0, AVStreamSegmentSize(VideoIndex));
    ring->WritePos.store(0);
    ring->LastKeyPos.store(-1);
    ring->NextSerial.store(1);
    ring->Published.store(0);
    ring->LastSerial.store(0);
    ring->CheckWord = kAVDataCheckWord;
    return 0;
}

void AVRingWriterClose(AVRingWriter *ring, bool remove) {
    if (ring->Base != nullptr) shmdt(ring->Base);
    ring->Base = nullptr;
    if (remove && ring->ShmId >= 0) IpcShareMemRemove(ring->ShmId);
    ring->ShmId = -1;
}

int32_t AVRingWriterPublish(AVRingWriter *ring, const uint8_t *payload, int32_t length, uint32_t source,
                            uint32_t timeStampMs, bool keyFrame) {
    if (length < 0 || kHeaderSize + length > ring->Capacity) return -1;
    int32_t pos = ring->WritePos.load(std::memory_order_relaxed);
    if (pos + kHeaderSize + length > ring->Capacity) {
        WriteMarker(ring, pos, kAVEndFlagWrap);
        pos = 0;
    }
    StoreWord(ring, pos, offsetof(AVDataInfo, EndFlag), 0);
    AVDataInfo fresh{};
    fresh.AVDataCheck = ring->CheckWord;
    fresh.SerialNumber = ring->NextSerial.fetch_add(1, std::memory_order_relaxed);
    fresh.AVDataLen = length;
    fresh.AVSource = source;
    fresh.TimeStamp = timeStampMs;
    fresh.KeyFrameFlag = keyFrame ? 1 : 0;
    memcpy(ring->Base + pos + kHeaderSize, payload, static_cast<size_t>(length));
    uint8_t *header = ring->Base + pos;
    memcpy(header, &fresh, offsetof(AVDataInfo, EndFlag));
    memcpy(header + offsetof(AVDataInfo, TimeStamp), &fresh.TimeStamp,
           sizeof(AVDataInfo) - offsetof(AVDataInfo, TimeStamp));
    int32_t next = pos + kHeaderSize + length;
    MarkUnwritten(ring, next);
    StoreWord(ring, pos, offsetof(AVDataInfo, EndFlag), kAVEndFlagFrame);
    if (keyFrame) ring->LastKeyPos.store(pos, std::memory_order_relaxed);
    ring->WritePos.store(next, std::memory_order_relaxed);
    ring->LastSerial.store(fresh.SerialNumber, std::memory_order_relaxed);
    ring->Published.fetch_add(1, std::memory_order_relaxed);
    return pos;
}

void AVRingWriterPause(AVRingWriter *ring) {
    WriteMarker(ring, ring->WritePos.load(std::memory_order_relaxed), AV_RINGBUFFER_FLAG_PAUSE);
    ring->LastKeyPos.store(-1, std::memory_order_relaxed);
    ring->WritePos.store(0, std::memory_order_relaxed);
}

int32_t AVRingWriterAnswer(const AVRingWriter *ring, uint32_t /*command*/) {
    int32_t key = ring->LastKeyPos.load(std::memory_order_relaxed);
    return key >= 0 ? key : ring->WritePos.load(std::memory_order_relaxed);
}

int AVRingServeControl(int msgId, AVRingAnswerFunc answer, void *context) {
    AVStreamCtrlMsg msg;
    if (IpcMsgRecv(msgId, &msg, kAVStreamCtrlBodySize, kAVStreamMsgTypeEncoder) < 0)
        return errno == EINTR ? 1 : -1;
    int32_t pos = answer(context, msg.Command, msg.Channel);
    msg.MsgType = msg.ReplyType;
    msg.Value = pos;
    IpcMsgSend(msgId, &msg, kAVStreamCtrlBodySize);
    return 0;
}
