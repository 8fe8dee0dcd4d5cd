// The encoder's side of a stream ring: publishes records (header + payload)
// in the layout the ring reader follows, and answers the reader's position
// requests on the control queue. Used by the camera simulator, the tests and
// the benchmarks.
#pragma once

#include <atomic>
#include <cstdint>

#include "ipc/av_stream.h"

struct AVRingWriter {
    uint32_t VideoIndex;               // channel
    int ShmId;                         // ring segment
    uint8_t *Base;                     // attached segment
    int32_t Capacity;                  // position and length limit
    std::atomic<int32_t> WritePos;     // where the next record goes
    std::atomic<int32_t> LastKeyPos;   // newest key-frame record, -1 none
    std::atomic<uint32_t> NextSerial;  // serial of the next record
    std::atomic<uint32_t> Published;   // records published
    std::atomic<uint32_t> LastSerial;  // serial of the newest record
    uint32_t CheckWord;                // check word of new records (a bad one for fault tests)
};

// Creates (or opens) and attaches the ring of channel VideoIndex and clears
// it. 0, or -1 when the segment cannot be had.
int AVRingWriterOpen(AVRingWriter *ring, uint32_t VideoIndex);
// Detaches; with remove set also removes the segment.
void AVRingWriterClose(AVRingWriter *ring, bool remove);

// Publishes one record and returns its position, or -1 when the payload can
// never fit the ring. A record that does not fit before the capacity ends
// the pass with a wrap marker and goes to position 0. EndFlag is written last.
int32_t AVRingWriterPublish(AVRingWriter *ring, const uint8_t *payload, int32_t length, uint32_t source,
                            uint32_t timeStampMs, bool keyFrame);

// Marks the writer paused at the next position (EndFlag 0xFD); the writer
// resumes at position 0.
void AVRingWriterPause(AVRingWriter *ring);

// The answer to a position request: the newest key-frame record, else the
// position of the next record.
int32_t AVRingWriterAnswer(const AVRingWriter *ring, uint32_t command);

// Answers one request of the control queue (blocking). answer gives the
// position for (command, channel); rings without a writer answer -1.
// Returns 0, 1 when interrupted by a signal, or -1 when the queue is gone.
typedef int32_t (*AVRingAnswerFunc)(void *context, uint32_t command, uint32_t channel);
int AVRingServeControl(int msgId, AVRingAnswerFunc answer, void *context);
