#include "replay/frame_clock.h"

#include <cmath>

namespace {

constexpr uint64_t kUsPerSecond = 1000000;
constexpr uint32_t kDefaultFps = 25;
// The packetizer's time stamps step by this much per video frame.
constexpr double kPtsPerFrame = 90000.0 / 25;
// A frame is captured at most this long before the second it was written
// in (the encoder's ring may hold a backlog), and never after that second.
constexpr uint64_t kWriteLatencyUs = 2 * kUsPerSecond;
// Audio drifting further than this from the video is set back onto it.
constexpr uint64_t kAudioDriftUs = 500000;

uint64_t Distance(uint64_t a, uint64_t b) { return a > b ? a - b : b - a; }

}  // namespace

FrameClock::FrameClock(uint32_t fps) : fps_(fps == 0 ? kDefaultFps : fps) {}

uint64_t FrameClock::Video(uint32_t pts90k, uint32_t writtenSecond) {
    uint64_t second = uint64_t{writtenSecond} * kUsPerSecond;
    if (anchored_) {
        // Whole frames since the last one; the stamp wraps at 2^32.
        uint32_t delta = pts90k - lastPts_;
        uint64_t step = static_cast<uint64_t>(std::llround(delta / kPtsPerFrame));
        frames_ += step == 0 || step > fps_ * 60ull ? 1 : step;
    }
    lastPts_ = pts90k;
    uint64_t at = anchorUs_ + frames_ * kUsPerSecond / fps_;
    bool plausible = at + kWriteLatencyUs >= second && at < second + kUsPerSecond;
    // The first frame written in a new second was captured about when that
    // second began: the clock is set there when it strays further than a
    // frame from it.
    bool newSecond = anchored_ && writtenSecond != lastSecond_ && Distance(at, second) > kUsPerSecond / fps_;
    lastSecond_ = writtenSecond;
    if (!anchored_ || !plausible || newSecond) {
        anchored_ = true;
        anchorUs_ = second;
        frames_ = 0;
        at = second;
    }
    if (at <= lastVideoUs_ && lastVideoUs_ < at + kWriteLatencyUs) at = lastVideoUs_ + 1;
    lastVideoUs_ = at;
    return at;
}

uint64_t FrameClock::Audio(uint32_t samples, uint32_t rate) {
    if (rate == 0) return lastVideoUs_;
    uint64_t at = audioAnchorUs_ + audioSamples_ * kUsPerSecond / rate;
    if (!audioAnchored_ || rate != audioRate_ || Distance(at, lastVideoUs_) > kAudioDriftUs) {
        audioAnchored_ = true;
        audioRate_ = rate;
        audioAnchorUs_ = lastVideoUs_;
        audioSamples_ = 0;
        at = lastVideoUs_;
    }
    audioSamples_ += samples;
    return at;
}
