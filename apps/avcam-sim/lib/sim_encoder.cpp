#include "lib/sim_encoder.h"

#include <time.h>

#include <cerrno>
#include <chrono>

#include "ipc/av_server_request.h"
#include "ipc/sysv_ipc.h"

namespace {
constexpr uint32_t kBadCheckWord = 0xBADC0DE5;
constexpr uint64_t kStopPollUs = 20000;
constexpr uint64_t kUsPerSecond = 1000000;
constexpr uint64_t kNsPerUs = 1000;

uint64_t NextKey(const VideoInput &video, uint64_t from) {
    for (size_t i = 0; i < video.units.size(); ++i) {
        size_t at = (from + i) % video.units.size();
        if (video.units[at].key) return at;
    }
    return from % video.units.size();
}
}  // namespace

bool SimEncoder::Start(const SimEncoderConfig &config, SimStatus *status) {
    config_ = config;
    status_ = status;
    for (uint32_t s = 0; s < kSimStreams; ++s) {
        ringOpen_[s] = AVRingWriterOpen(&rings_[s], s) == 0;
        if (!ringOpen_[s]) {
            Stop();
            return false;
        }
        SimStore(status_->Ring[s].Active, config_.hasVideo[s] ? 1 : 0);
    }
    if (!config_.publishLog.empty()) {
        publishLog_ = fopen(config_.publishLog.c_str(), "w");
        if (publishLog_ == nullptr) {
            Stop();
            return false;
        }
        setvbuf(publishLog_, nullptr, _IOLBF, 0);
    }
    ctrlQueue_ = IpcMsgQueueOpen(kAVStreamCtrlQueueKey);
    encoderQueue_ = IpcMsgQueueOpen(kAVServerCtrlQueueKey);
    if (ctrlQueue_ < 0 || encoderQueue_ < 0) {
        Stop();
        return false;
    }
    threads_.emplace_back(&SimEncoder::ControlServer, this);
    threads_.emplace_back(&SimEncoder::EncoderControlServer, this);
    for (uint32_t s = 0; s < kSimStreams; ++s) {
        if (config_.hasVideo[s]) threads_.emplace_back(&SimEncoder::Publisher, this, s);
    }
    return true;
}

void SimEncoder::Stop() {
    stop_.store(1);
    // Removing the queues wakes the threads blocked on them.
    if (ctrlQueue_ >= 0) IpcMsgQueueRemove(ctrlQueue_);
    if (encoderQueue_ >= 0) IpcMsgQueueRemove(encoderQueue_);
    ctrlQueue_ = encoderQueue_ = -1;
    for (std::thread &thread : threads_) thread.join();
    threads_.clear();
    if (publishLog_ != nullptr) fclose(publishLog_);
    publishLog_ = nullptr;
    for (uint32_t s = 0; s < kSimStreams; ++s) {
        if (ringOpen_[s]) AVRingWriterClose(&rings_[s], true);
        ringOpen_[s] = false;
    }
}

void SimEncoder::SleepUnlessStopped(uint64_t us) {
    auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(us);
    while (stop_.load() == 0 && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::microseconds(std::min<uint64_t>(us, kStopPollUs)));
    }
}

// Wall-clock time of the publication, the stream and the input's access
// unit: what a test needs to time the frame's way to a client.
void SimEncoder::LogPublished(uint32_t stream, uint64_t index) {
    if (publishLog_ == nullptr) return;
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    uint64_t us =
        static_cast<uint64_t>(now.tv_sec) * kUsPerSecond + static_cast<uint64_t>(now.tv_nsec) / kNsPerUs;
    fprintf(publishLog_, "%llu %u %llu\n", static_cast<unsigned long long>(us), stream,
            static_cast<unsigned long long>(index));
}

bool SimEncoder::TakeFault(uint32_t stream, SimFault *fault, uint32_t *arg) {
    uint32_t seq = SimLoad(status_->InjectSeq);
    if (seq == SimLoad(status_->InjectDoneSeq) || SimLoad(status_->InjectStream) != stream) return false;
    *fault = static_cast<SimFault>(SimLoad(status_->InjectFault));
    *arg = SimLoad(status_->InjectArg);
    SimStore(status_->InjectDoneSeq, seq);
    return true;
}

void SimEncoder::PublishAudioUntil(uint64_t mediaUs, uint64_t *audioUs, size_t *audioIndex) {
    const AudioInput &audio = config_.audio;
    while (*audioUs <= mediaUs && !audio.frames.empty()) {
        if (*audioIndex >= audio.frames.size()) {
            if (!config_.loop) return;
            *audioIndex = 0;
        }
        const std::vector<uint8_t> &frame = audio.frames[(*audioIndex)++];
        AVRingWriterPublish(&rings_[0], frame.data(), static_cast<int32_t>(frame.size()), kAVSourceAudio,
                            static_cast<uint32_t>(*audioUs / 1000), false);
        SimAdd(status_->AudioFrames, 1);
        *audioUs += audio.frameDurationUs;
    }
}

void SimEncoder::Publisher(uint32_t stream) {
    const VideoInput &video = config_.video[stream];
    AVRingWriter &ring = rings_[stream];
    SimRingStatus &ringStatus = status_->Ring[stream];
    const uint64_t frameUs = 1000000 / config_.fps;
    const auto interval = std::chrono::microseconds(static_cast<int64_t>(frameUs / config_.speed));
    uint64_t index = NextKey(video, 0);
    uint64_t frameNo = 0, audioUs = 0;
    size_t audioIndex = 0;
    uint32_t corruptLeft = 0, burstLeft = 0;
    bool finished = false;
    auto next = std::chrono::steady_clock::now();
    while (stop_.load() == 0) {
        SimFault fault = SimFault::None;
        uint32_t arg = 0;
        if (TakeFault(stream, &fault, &arg)) {
            if (fault == SimFault::SerialGap) ring.NextSerial.fetch_add(arg - 1);
            if (fault == SimFault::CorruptCheck) corruptLeft = arg;
            if (fault == SimFault::Burst) burstLeft = arg;
            if (fault == SimFault::Pause) {
                AVRingWriterPause(&ring);
                SleepUnlessStopped(uint64_t{arg} * 1000000);
                forceKey_[stream].store(1);
                next = std::chrono::steady_clock::now();
            }
        }
        if (finished) {
            SleepUnlessStopped(kStopPollUs);
            continue;
        }
        bool forced = forceKey_[stream].exchange(0) != 0;
        if (forced && !video.units[index].key) index = NextKey(video, index);
        const AccessUnit &unit = video.units[index];
        ring.CheckWord = corruptLeft > 0 ? kBadCheckWord : kAVDataCheckWord;
        if (corruptLeft > 0) --corruptLeft;
        uint64_t mediaUs = frameNo * frameUs;
        AVRingWriterPublish(&ring, unit.bytes.data(), static_cast<int32_t>(unit.bytes.size()), kAVSourceVideo,
                            static_cast<uint32_t>(mediaUs / 1000), unit.key);
        LogPublished(stream, index);
        SimStore(ringStatus.Serial, ring.LastSerial.load());
        SimStore(reinterpret_cast<uint32_t &>(ringStatus.Position),
                 static_cast<uint32_t>(ring.WritePos.load()));
        SimAdd(ringStatus.Frames, 1);
        if (forced) SimStore(ringStatus.ForceKey, SimLoad(ringStatus.Frames));
        if (unit.key) SimAdd(ringStatus.KeyFrames, 1);
        if (stream == 0 && config_.hasAudio) PublishAudioUntil(mediaUs, &audioUs, &audioIndex);
        ++frameNo;
        if (++index == video.units.size()) {
            index = 0;
            finished = !config_.loop;
        }
        if (burstLeft > 0) {
            --burstLeft;
            next = std::chrono::steady_clock::now();
            continue;
        }
        next += interval;
        auto now = std::chrono::steady_clock::now();
        if (next < now - interval * 4) next = now;  // far behind (stopped in a debugger): no catch-up burst
        std::this_thread::sleep_until(next);
    }
}

void SimEncoder::ControlServer() {
    auto answer = [](void *context, uint32_t command, uint32_t channel) -> int32_t {
        auto *self = static_cast<SimEncoder *>(context);
        if (channel >= kSimStreams || !self->ringOpen_[channel]) return -1;
        return AVRingWriterAnswer(&self->rings_[channel], command);
    };
    while (stop_.load() == 0) {
        int result = AVRingServeControl(ctrlQueue_, answer, this);
        if (result < 0) break;
        if (result == 0) SimAdd(status_->StreamRequests, 1);
    }
}

void SimEncoder::EncoderControlServer() {
    while (stop_.load() == 0) {
        AVServerMsg msg{};
        if (IpcMsgRecv(encoderQueue_, &msg, kAVServerMsgBodySize, kAVServerMsgTypeRequest) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (msg.Command == kAVServerCmdForceIFrame && msg.Argument < kSimStreams) {
            SimStore(status_->Ring[msg.Argument].ForceAsked, SimLoad(status_->Ring[msg.Argument].Frames));
            forceKey_[msg.Argument].store(1);
            SimAdd(status_->ForceIFrames, 1);
        }
        msg.MsgType = kAVServerMsgTypeReply;
        msg.Result = 0;
        IpcMsgSend(encoderQueue_, &msg, kAVServerMsgBodySize);
        SimAdd(status_->EncoderRequests, 1);
    }
}
