// RTCP packets the replay server sends: a sender report tying a track's RTP
// time stamps to the recording's wall clock, and the goodbye at the end of a
// range that makes players end by themselves.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t kRtcpMaxCompound = 128;

struct RtcpSender {
    uint32_t u32Ssrc;
    uint64_t u64CaptureUs;  // capture time of the frame last sent
    uint32_t u32Timestamp;  // its RTP time stamp
    uint32_t u32Packets;
    uint32_t u32Octets;
};

// Sender report with the source description (CNAME), optionally followed by
// BYE. Returns the bytes written into out (kRtcpMaxCompound at most).
size_t RtcpCompound(const RtcpSender &sender, bool bBye, uint8_t out[kRtcpMaxCompound]);

// True when the bytes look like an RTCP packet (version 2, type 200..204), so
// a client's receiver reports can be told apart from anything else.
bool RtcpLooksValid(const uint8_t *data, size_t size);
