// The simulated encoder: publishes the inputs into the three rings at the
// frame rate, answers the ring control queue and the encoder-control queue
// (force-I-frame), and takes faults from the status mailbox.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "ipc/av_ring_writer.h"
#include "lib/annexb.h"
#include "lib/audio_input.h"
#include "lib/sim_status.h"

struct SimEncoderConfig {
    uint32_t fps = 25;                // frames per second
    double speed = 1.0;               // publishing speed-up
    bool loop = true;                 // repeat the inputs
    bool hasVideo[kSimStreams] = {};  // stream has an input
    VideoInput video[kSimStreams];    // inputs
    bool hasAudio = false;            // audio into the main ring
    AudioInput audio;                 // audio input
    std::string publishLog;           // one line per video frame published, when set
};

class SimEncoder {
public:
    // Opens rings and queues and starts the threads. false when an object
    // cannot be had (everything opened so far is removed again).
    bool Start(const SimEncoderConfig &config, SimStatus *status);
    // Stops the threads and removes the rings and queues.
    void Stop();

private:
    void Publisher(uint32_t stream);
    void ControlServer();
    void EncoderControlServer();
    bool TakeFault(uint32_t stream, SimFault *fault, uint32_t *arg);
    void PublishAudioUntil(uint64_t mediaUs, uint64_t *audioUs, size_t *audioIndex);
    void SleepUnlessStopped(uint64_t us);
    void LogPublished(uint32_t stream, uint64_t index);

    SimEncoderConfig config_;
    SimStatus *status_ = nullptr;
    AVRingWriter rings_[kSimStreams];
    bool ringOpen_[kSimStreams] = {};
    int ctrlQueue_ = -1;
    int encoderQueue_ = -1;
    std::atomic<uint32_t> stop_{0};
    std::atomic<uint32_t> forceKey_[kSimStreams] = {};
    std::vector<std::thread> threads_;
    FILE *publishLog_ = nullptr;
};
