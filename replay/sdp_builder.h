// The session description DESCRIBE answers with: the recording's video track
// with its parameter sets, its audio track when it has one, and the span of
// time the card holds.
#pragma once

#include <cstdint>
#include <string>

#include "replay/replay_source.h"
#include "replay/rtp_packetizer.h"

// How one track goes out: its RTP payload, type number and clock.
struct SdpTrack {
    RtpPayload payload;
    uint8_t u8PayloadType;
    uint32_t u32ClockRate;
};

inline constexpr uint8_t kSdpVideoPayloadType = 96;
inline constexpr uint8_t kSdpAudioDynamicType = 97;
inline constexpr uint32_t kVideoClockRate = 90000;
inline constexpr char kSdpVideoControl[] = "trackID=0";
inline constexpr char kSdpAudioControl[] = "trackID=1";

SdpTrack SdpVideoTrack(const ReplayTracks &tracks);
// The audio track; false when the card's audio type is none this server sends.
bool SdpAudioTrack(const ReplayTracks &tracks, SdpTrack *track);

// The whole description. serverAddress: the address the client reached us on.
// rangeFromUs/rangeToUs: what a=range announces (to 0: open).
std::string SdpDescribe(const ReplayTracks &tracks, const std::string &serverAddress, uint64_t rangeFromUs,
                        uint64_t rangeToUs);
