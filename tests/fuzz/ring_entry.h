// Fuzz entry: a stream ring reader following arbitrary segment contents.
// Input: u32 start position, u32 key-frame position (the encoder's answers
// on the control queue), then the bytes laid into the segment at the start
// position. The reader runs a bounded number of rounds; every frame it hands
// over must lie inside the segment.
#pragma once

#include <sys/msg.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <thread>

#include "ipc/av_ring_writer.h"
#include "ipc/av_stream.h"

namespace fuzz {

inline constexpr uint32_t kRingType = 5;
inline constexpr uint32_t kRingChannel = 1;
inline constexpr uint32_t kRingRounds = 200;

struct RingHarness {
    AVRingWriter ring{};
    int msgId = -1;
    std::atomic<int32_t> startPos{0};
    std::atomic<int32_t> keyPos{0};
    std::atomic<uint32_t> rounds{0};
    bool ready = false;
};

inline RingHarness &Ring() {
    static RingHarness h;
    return h;
}

// Start and end of the mapping holding p (the reader attaches the segment
// at an address of its own); remembered until p lies elsewhere.
inline bool MappingOf(const uint8_t *p, uintptr_t *start) {
    static uintptr_t cachedStart = 0;
    static uintptr_t cachedEnd = 0;
    uintptr_t at = reinterpret_cast<uintptr_t>(p);
    if (at < cachedStart || at >= cachedEnd) {
        cachedStart = cachedEnd = 0;
        FILE *maps = fopen("/proc/self/maps", "re");
        if (maps == nullptr) return false;
        unsigned long from;
        unsigned long to;
        char line[512];
        while (fgets(line, sizeof line, maps) != nullptr) {
            if (sscanf(line, "%lx-%lx", &from, &to) == 2 && at >= from && at < to) {
                cachedStart = from;
                cachedEnd = to;
                break;
            }
        }
        fclose(maps);
    }
    *start = cachedStart;
    return cachedStart != 0;
}

inline int RingFrame(uint32_t, uint32_t, uint8_t *payload, AVDataInfo *info) {
    uintptr_t base;
    if (info->AVDataLen < 0) return 0;                 // no payload to read
    if (!MappingOf(payload, &base)) __builtin_trap();  // a frame outside every mapping
    uintptr_t end = base + AVStreamSegmentSize(kRingChannel);
    uintptr_t at = reinterpret_cast<uintptr_t>(payload);
    if (at > end || static_cast<size_t>(info->AVDataLen) > end - at)
        __builtin_trap();  // reaches past the segment
    volatile uint8_t sink = 0;
    for (int32_t i = 0; i < info->AVDataLen; i += 4096) sink = sink + payload[i];
    return 0;
}

// Counts the reader's rounds; past the limit the channel reads as not ready.
inline int RingStatus(uint32_t) { return Ring().rounds.fetch_add(1) < kRingRounds ? 1 : 0; }
inline void RingNoSleep(uint32_t) {}

// The encoder's answers; they count as rounds too, as a reader asking
// again and again does not look at the channel status.
inline int32_t RingAnswer(void *, uint32_t command, uint32_t) {
    RingHarness &h = Ring();
    h.rounds.fetch_add(1);
    return command == kAVStreamCmdLastIFrame ? h.keyPos.load() : h.startPos.load();
}

// The ring, the control queue with an encoder answering it, the consumer.
// Needs a System V IPC namespace of its own.
inline bool RingSetUp() {
    RingHarness &h = Ring();
    if (h.ready) return true;
    if (AVRingWriterOpen(&h.ring, kRingChannel) != 0) return false;
    h.msgId = msgget(kAVStreamCtrlQueueKey, IPC_CREAT | 0600);
    if (h.msgId < 0) return false;
    std::thread([] {
        while (AVRingServeControl(Ring().msgId, RingAnswer, nullptr) >= 0) {
        }
    }).detach();
    AVStreamSetSleepForTest(RingNoSleep);
    if (GetAVStreamInit(kRingType, RingFrame, RingStatus) != 0) return false;
    h.ready = true;
    return true;
}

inline int FuzzRingReader(const uint8_t *data, size_t size) {
    if (!RingSetUp() || size < 8) return 0;
    RingHarness &h = Ring();
    const int32_t capacity = kAVStreamCapacity[kRingChannel];
    int32_t start;
    int32_t key;
    memcpy(&start, data, 4);
    memcpy(&key, data + 4, 4);
    data += 8;
    size -= 8;
    size_t segment = AVStreamSegmentSize(kRingChannel);
    memset(h.ring.Base, 0, segment);
    uint32_t at = static_cast<uint32_t>(start) % static_cast<uint32_t>(capacity + 1);
    memcpy(h.ring.Base + at, data, std::min(size, segment - at));
    h.startPos = static_cast<int32_t>(at);
    h.keyPos = key;
    h.rounds = 0;
    AVStreamStart(kRingType, kRingChannel);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
    while (h.rounds.load() <= kRingRounds && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    AVStreamStop(kRingType, kRingChannel);
    return 0;
}

}  // namespace fuzz
