// Capture times of a section's frames. The card keeps per frame only the
// second it was written (pack header) and a time stamp counted in frames at
// a fixed 25 per second; the clock spaces video frames by the section's
// frame rate from the first frame it sees, sets itself to the start of a
// second at the first frame written in it when it has strayed more than a
// frame from there, and times audio by its sample count from the video.
#pragma once

#include <cstdint>

class FrameClock {
public:
    // fps: the section's frame rate (0 counts as 25).
    explicit FrameClock(uint32_t fps = 0);

    // Capture time of the next video frame: its 90 kHz stamp and the second
    // the recorder wrote it. Microseconds since 1970.
    uint64_t Video(uint32_t pts90k, uint32_t writtenSecond);

    // Capture time of the next audio frame of `samples` samples at `rate`.
    uint64_t Audio(uint32_t samples, uint32_t rate);

private:
    uint32_t fps_;
    bool anchored_ = false;
    uint64_t anchorUs_ = 0;  // capture time of frame 0
    uint64_t frames_ = 0;    // video frames since the anchor
    uint32_t lastPts_ = 0;
    uint32_t lastSecond_ = 0;  // second the latest video frame was written in
    uint64_t lastVideoUs_ = 0;
    bool audioAnchored_ = false;
    uint64_t audioAnchorUs_ = 0;
    uint64_t audioSamples_ = 0;  // samples since the audio anchor
    uint32_t audioRate_ = 0;
};
