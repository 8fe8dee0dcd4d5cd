// MP4 clips of a card: the recorded frames of a time range (or of one
// section or alarm event by its search name) remuxed into MP4 without
// re-encoding the video. H.264 and H.265 keep their parameter sets (also in
// the sample description) and key frames are marked as sync samples, so
// players seek. AAC audio goes in as recorded; G.711 is decoded and
// re-encoded as AAC, which browsers and most players take in MP4.
//
// A clip may span sections: they follow one another in the MP4 with the
// gaps between them left out. It stops early (ClipInfo::stoppedAt set) at the
// first section whose codec, picture size or audio differs from the first.
// Video frames are placed at the section's frame rate, audio continues
// sample by sample and is re-aligned with the video at every section.
//
// Output goes to a file (plain MP4, index in front so playback starts
// before the whole file is loaded) or to a write callback (fragmented MP4,
// one fragment per key frame, for streaming without seeking).
//
// Reading goes through FileIo(), so cardDir may be a mounted card or an
// attached card image (see card_reader/card_image_io.h). One clip per call; calls
// on different threads do not share state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// What to cut.
struct ClipRequest {
    std::string cardDir;  // card directory (a trailing '/' is added when missing)
    // Either a recording as the search lists it ("hi000000_000001.mp4" or
    // "he000000_000000.mp4") ...
    std::string recording;
    // ... or, when recording is empty, a range of UTC seconds [from, to],
    // both ends included: the clip shows the frames stamped `from` to `to`.
    // Reading begins at the key frame before the first of them (nothing
    // before it decodes); the frames up to it are in the MP4 but an edit
    // list keeps them from being shown.
    uint32_t from = 0;
    uint32_t to = 0;
};

// Progress while a clip is made; total figures are estimates from the index.
struct ClipProgress {
    uint64_t videoFrames;       // video frames written so far
    uint64_t videoFramesTotal;  // estimated video frames of the whole clip
    uint64_t cardBytes;         // program-stream bytes read from the card so far
    uint64_t cardBytesTotal;    // estimated program-stream bytes of the whole clip
    uint64_t outputBytes;       // MP4 bytes written so far
};

// What the clip holds; filled as far as it got, also on failure.
struct ClipInfo {
    std::string videoCodec;   // "h264" or "hevc"
    std::string audioCodec;   // "aac", or "" when the clip has no audio
    std::string sourceAudio;  // as recorded: "aac", "g711a", "g711u" or ""
    uint32_t width = 0;       // picture size as recorded
    uint32_t height = 0;
    uint32_t frameRate = 0;    // frames per second of the first section
    uint32_t firstTime = 0;    // wall clock (UTC s) of the first video frame
    uint32_t lastTime = 0;     // wall clock of the last video frame
    uint32_t sections = 0;     // sections the clip took frames from
    uint32_t stoppedAt = 0;    // start of a section left out for other parameters, else 0
    uint64_t videoFrames = 0;  // video frames written
    uint64_t keyFrames = 0;    // of which key frames
    uint64_t audioFrames = 0;  // audio frames read from the card
    uint64_t outputBytes = 0;  // MP4 bytes written
    double duration = 0;       // seconds of video: videoFrames / frameRate per section
};

// Results.
inline constexpr int kClipOk = 0;
inline constexpr int kClipBadRequest = 1;   // unknown name, empty or reversed range
inline constexpr int kClipNothing = 2;      // no recording in the range
inline constexpr int kClipCardError = 3;    // the card's index or data cannot be read
inline constexpr int kClipOutputError = 4;  // writing the MP4 failed
inline constexpr int kClipCancelled = 5;    // progress or the sink asked to stop

// Called every few frames; return false to stop (kClipCancelled).
using ClipProgressFn = std::function<bool(const ClipProgress &)>;
// Receives the fragmented MP4 in order; return false to stop.
using ClipSinkFn = std::function<bool(const uint8_t *data, size_t length)>;

// Writes the clip to path (replaced). One of the results above; *reason
// says what went wrong in one line. progress may be empty.
int CardClipToFile(const ClipRequest &request, const std::string &path, const ClipProgressFn &progress,
                   ClipInfo *info, std::string *reason);

// The wall clock of the key frame a clip of the range [from, to] starts
// decoding on: what a player of the range shows first. One of the results.
int CardClipKeyTime(const ClipRequest &request, uint32_t *keyTime, std::string *reason);

// Hands the clip to sink as fragmented MP4.
int CardClipToStream(const ClipRequest &request, const ClipSinkFn &sink, const ClipProgressFn &progress,
                     ClipInfo *info, std::string *reason);
