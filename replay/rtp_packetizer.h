// RTP packets of recorded frames: H.264 (RFC 6184) and H.265 (RFC 7798)
// access units as single units or fragments, G.711 (RFC 3551) and AAC
// (RFC 3640, AAC-hbr) audio frames; every frame's first packet carries the
// replay header extension with its capture time and section marks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

enum class RtpPayload { kH264, kH265, kG711, kAac };

inline constexpr size_t kRtpHeaderSize = 12;
inline constexpr size_t kRtpMaxPacket = 1400;  // stays inside an Ethernet frame with IP and UDP
inline constexpr uint16_t kReplayExtensionProfile = 0xABAC;
inline constexpr size_t kReplayExtensionWords = 3;
inline constexpr size_t kReplayExtensionSize = 4 + 4 * kReplayExtensionWords;
inline constexpr uint64_t kNtpUnixOffset = 2208988800ull;  // seconds from 1900 to 1970

// The replay extension's flag bits.
inline constexpr uint8_t kReplayFlagClean = 0x80;          // C: a key frame
inline constexpr uint8_t kReplayFlagEnd = 0x40;            // E: last before a gap
inline constexpr uint8_t kReplayFlagDiscontinuity = 0x20;  // D: first after a gap or a jump
inline constexpr uint8_t kReplayFlagTerminal = 0x10;       // T: last of the range

struct RtpFrameMarks {
    uint64_t u64CaptureUs;  // wall-clock capture time, microseconds since 1970
    uint8_t u8Flags;        // kReplayFlag*
    uint8_t u8CSeq;         // low byte of the PLAY's CSeq
};

// One packet at a time; false stops the frame (the connection is gone).
using RtpSend = std::function<bool(const uint8_t *packet, size_t size)>;

// The NTP form (seconds since 1900 in the high word) of a Unix time in microseconds.
uint64_t RtpNtpTime(uint64_t unixUs);

class RtpPacketizer {
public:
    RtpPacketizer(RtpPayload payload, uint8_t payloadType, uint32_t ssrc, uint16_t firstSequence);

    // Sends the frame as packets stamped `timestamp`, the first with the
    // replay extension of marks (none for null). False when send refused one.
    bool SendFrame(const uint8_t *data, size_t size, uint32_t timestamp, const RtpFrameMarks *marks,
                   const RtpSend &send);

    // How many packets SendFrame would make of the frame without marks.
    uint16_t PacketsFor(const uint8_t *data, size_t size) const;

    uint32_t Ssrc() const { return m_ssrc; }
    uint16_t NextSequence() const { return m_sequence; }
    uint32_t Packets() const { return m_packets; }
    uint32_t Octets() const { return m_octets; }

private:
    bool SendVideo(const uint8_t *data, size_t size, uint32_t timestamp, const RtpSend &send);
    bool SendNal(const uint8_t *nal, size_t size, bool lastOfUnit, uint32_t timestamp, const RtpSend &send);
    bool SendG711(const uint8_t *data, size_t size, uint32_t timestamp, const RtpSend &send);
    bool SendAac(const uint8_t *data, size_t size, uint32_t timestamp, const RtpSend &send);
    // Writes the header (and the extension when marks are pending) into m_packet; returns the payload offset.
    size_t StartPacket(bool marker, uint32_t timestamp);
    bool Finish(size_t size, const RtpSend &send);

    RtpPayload m_payload;
    uint8_t m_payloadType;
    uint32_t m_ssrc;
    uint16_t m_sequence;
    uint32_t m_packets = 0;
    uint32_t m_octets = 0;
    const RtpFrameMarks *m_pendingMarks = nullptr;  // the frame's first packet not yet written
    uint8_t m_packet[kRtpMaxPacket];
};
