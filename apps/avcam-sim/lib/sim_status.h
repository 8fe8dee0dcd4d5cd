// The state that "avcam-sim run" shares with the other commands: a small
// System V segment of the same IPC namespace holding its process id and
// counters, and a mailbox through which "inject" hands it faults.
#pragma once

#include <sys/types.h>

#include <cstdint>

inline constexpr key_t kSimStatusKey = 0x61765354;
inline constexpr uint32_t kSimStatusMagic = 0x4D495341;
inline constexpr uint32_t kSimStreams = 3;

enum class SimFault : uint32_t { None = 0, SerialGap = 1, Pause = 2, CorruptCheck = 3, Burst = 4 };

struct SimRingStatus {
    uint32_t Serial;      // serial of the newest record
    int32_t Position;     // position of the next record
    uint32_t Frames;      // records published
    uint32_t KeyFrames;   // key-frame records published
    uint32_t Active;      // 1 when the stream has an input
    uint32_t ForceAsked;  // video frames published when a key frame was asked for
    uint32_t ForceKey;    // video frame number of the key frame published for it
};

struct SimStatus {
    uint32_t Magic;                   // kSimStatusMagic once filled
    int32_t Pid;                      // process id of "run"
    uint32_t Fps;                     // frame rate
    uint32_t Reserved;                // reserved
    SimRingStatus Ring[kSimStreams];  // per stream
    uint32_t AudioFrames;             // audio records published
    uint32_t ConfigRequests;          // configuration requests answered
    uint32_t StreamRequests;          // ring position requests answered
    uint32_t EncoderRequests;         // encoder-control requests answered
    uint32_t ForceIFrames;            // force-I-frame requests served
    uint32_t InjectSeq;               // raised by "inject" after filling the fields below
    uint32_t InjectFault;             // SimFault
    uint32_t InjectArg;               // N or seconds
    uint32_t InjectStream;            // stream
    uint32_t InjectDoneSeq;           // raised by "run" when it took the fault
};

// Creates the segment for "run". Returns its identifier or -1.
int SimStatusCreate(SimStatus **status);
// Attaches the segment of a running "run"; null when there is none (or its
// process is gone).
SimStatus *SimStatusAttach();
void SimStatusDetach(SimStatus *status);

// Counters and mailbox words are shared between processes.
uint32_t SimLoad(const uint32_t &word);
void SimStore(uint32_t &word, uint32_t value);
void SimAdd(uint32_t &word, uint32_t delta);
