#include "replay/frame_clock.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t kUs = 1000000;
constexpr uint32_t kPtsPerFrame = 3600;  // the packetizer's step at 25 per second
constexpr uint32_t kSecond = 1750000000;

// Frames at 25 per second whose first one was written 0.6 s into a second:
// the clock starts at that second's start, and at the first frame written
// in the next second it sets itself there, then runs on frame by frame.
TEST(FrameClockTest, SpacesFramesAndFollowsTheWrittenSeconds) {
    FrameClock clock(25);
    uint32_t pts = 0xFFFFF000u;  // the stamp wraps on the way
    uint64_t last = 0;
    for (int n = 0; n < 60; ++n, pts += kPtsPerFrame) {
        uint32_t written = kSecond + (n < 10 ? 0 : 1 + (n - 10) / 25);
        uint64_t at = clock.Video(pts, written);
        uint64_t expected = n < 10 ? uint64_t{kSecond} * kUs + n * 40000ull
                                   : uint64_t{kSecond + 1} * kUs + (n - 10) * 40000ull;
        EXPECT_EQ(at, expected) << n;
        EXPECT_GT(at, last) << n;
        last = at;
    }
}

// Audio runs on its samples from the video, and is set back onto the video
// when it drifts away from it.
TEST(FrameClockTest, AudioFollowsItsSamples) {
    FrameClock clock(25);
    uint64_t video = clock.Video(0, kSecond);
    EXPECT_EQ(clock.Audio(320, 8000), video);
    EXPECT_EQ(clock.Audio(320, 8000), video + 40000);
    EXPECT_EQ(clock.Audio(1024, 48000), video);  // another rate starts again
    for (int i = 0; i < 20; ++i) clock.Audio(1024, 48000);
    EXPECT_EQ(clock.Audio(1024, 48000), video + 21 * 1024 * kUs / 48000);
    uint64_t later = clock.Video(kPtsPerFrame * 40, kSecond + 2);
    EXPECT_EQ(clock.Audio(1024, 48000), later);
}

}  // namespace
