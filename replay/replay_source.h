// Frame-by-frame reading of the card's recordings for one replay client,
// while the recorder goes on writing the same card. The reader takes from
// the index only what the recorder has finished (a frame's bytes are on the
// card before the records that count it), follows a section the recorder is
// still extending, and ends the older footage of a media file cleanly when
// the recorder starts that file over. It never writes, and holds one frame
// at a time in a buffer sized to the largest frame it has met.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Names the card: the folder holding its files (a mounted card, or the view
// of an attached card image).
struct ReplayCard {
    std::string dir;
};

// What a description of the recording needs.
struct ReplayTracks {
    int iVideoCodec;                     // kVideoCodecH264 or kVideoCodecH265
    std::vector<uint8_t> vps, sps, pps;  // parameter sets, without start codes (vps only for H.265)
    bool bHasAudio;
    int iAudioCodec;  // kAudioCodecG711U, kAudioCodecG711A or kAudioCodecAac
    uint32_t u32AudioRate, u32AudioChannels;
    uint32_t u32Oldest, u32Newest;     // span of recordings on the card, card seconds (UTC)
    uint16_t u16Width, u16Height;      // picture size as recorded
    uint32_t u32FrameRate;             // frames per second of the section described
    std::vector<uint8_t> audioConfig;  // AAC: the AudioSpecificConfig of the stream
};

// One access unit (video) or audio frame.
struct ReplayUnit {
    bool bVideo, bKey;
    bool bGapBefore;            // first unit after a gap in the recording
    bool bGapAfter;             // last unit before a gap or the end of the footage
    bool bLast;                 // last unit of the asked range
    uint64_t u64CaptureUs;      // wall-clock capture time, microseconds since 1970 UTC
    uint32_t u32Pts90k;         // the frame's 90 kHz time stamp as recorded
    std::vector<uint8_t> data;  // video: Annex B access unit; audio: the raw frame as recorded
};

inline constexpr int kReplayUnit = 0;     // *unit filled
inline constexpr int kReplayDone = 1;     // the range is done
inline constexpr int kReplayWaiting = 2;  // nothing new on the card yet: ask again a little later
inline constexpr int kReplayError = -1;   // the card could not be read

class ReplaySource {
public:
    virtual ~ReplaySource() = default;
    // kReplayUnit with *unit filled, kReplayDone, kReplayWaiting (live
    // tail: the caller waits a little and asks again) or kReplayError.
    virtual int Next(ReplayUnit *unit) = 0;
};

// A source for [startUs, endUs] (microseconds since 1970; endUs 0: open,
// following the recording as it is written). Playback starts at the key
// frame at or before startUs, or at the next recording when startUs falls
// in a gap. bIntraOnly hands out key frames only, without audio. nullptr
// when the card's index cannot be read.
std::unique_ptr<ReplaySource> ReplayOpen(const ReplayCard &card, uint64_t startUs, uint64_t endUs,
                                         bool bIntraOnly);

// The same, with each unit's data the frame's program-stream bytes as the
// recorder wrote them (pack and PES headers kept), for a copy of the range
// as recorded.
std::unique_ptr<ReplaySource> ReplayOpenRecorded(const ReplayCard &card, uint64_t startUs, uint64_t endUs);

// Describes the recording the range [start, end] (card seconds; end 0:
// open) begins with, and the span of the whole card. 0, or -1 when the card
// cannot be read or holds nothing from start on.
int ReplayDescribe(const ReplayCard &card, uint32_t start, uint32_t end, ReplayTracks *tracks);
