#include "replay/rtp_packetizer.h"

#include <algorithm>
#include <cstring>

#include "card_reader/adts_header.h"
#include "common/nal_unit.h"
#include "replay/rtp_bytes.h"

namespace {

constexpr uint8_t kRtpVersion2 = 0x80;
constexpr uint8_t kRtpExtensionBit = 0x10;
constexpr uint8_t kRtpMarkerBit = 0x80;
constexpr uint8_t kH264FuA = 28;
constexpr uint8_t kH265Fu = 49;
constexpr uint8_t kFuStart = 0x80;
constexpr uint8_t kFuEnd = 0x40;
constexpr size_t kH264FuOverhead = 2;    // FU indicator and header
constexpr size_t kH265FuOverhead = 3;    // payload header (2) and FU header
constexpr size_t kAacAuHeaderBytes = 2;  // 13-bit size and 3-bit index (AAC-hbr)
constexpr size_t kAacHeaderSectionBytes = 2 + kAacAuHeaderBytes;
constexpr uint32_t kAacAuSizeShift = 3;
constexpr uint32_t kAacMaxAuSize = (1u << 13) - 1;

// Length of the start code at p (3 or 4 bytes), or 0.
size_t StartCodeAt(const uint8_t *p, size_t left) {
    if (left >= 3 && p[0] == 0 && p[1] == 0 && p[2] == 1) return 3;
    if (left >= 4 && p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1) return 4;
    return 0;
}

// The next NAL unit of an Annex B buffer from *at: its bytes, and *at moved past it.
bool NextNal(const uint8_t *data, size_t size, size_t *at, const uint8_t **nal, size_t *length) {
    size_t i = *at;
    while (i < size && StartCodeAt(data + i, size - i) == 0) ++i;
    if (i >= size) return false;
    i += StartCodeAt(data + i, size - i);
    size_t end = i;
    while (end < size && StartCodeAt(data + end, size - end) == 0) ++end;
    size_t trimmed = end;
    while (trimmed > i && data[trimmed - 1] == 0 && end < size) --trimmed;  // trailing zeros of a 4-byte code
    *nal = data + i;
    *length = trimmed - i;
    *at = end;
    return true;
}

}  // namespace

uint64_t RtpNtpTime(uint64_t unixUs) {
    uint64_t seconds = unixUs / 1000000 + kNtpUnixOffset;
    uint64_t fraction = ((unixUs % 1000000) << 32) / 1000000;
    return (seconds << 32) | fraction;
}

RtpPacketizer::RtpPacketizer(RtpPayload payload, uint8_t payloadType, uint32_t ssrc, uint16_t firstSequence)
    : m_payload(payload), m_payloadType(payloadType), m_ssrc(ssrc), m_sequence(firstSequence) {}

size_t RtpPacketizer::StartPacket(bool marker, uint32_t timestamp) {
    bool extension = m_pendingMarks != nullptr;
    m_packet[0] = static_cast<uint8_t>(kRtpVersion2 | (extension ? kRtpExtensionBit : 0));
    m_packet[1] = static_cast<uint8_t>((marker ? kRtpMarkerBit : 0) | m_payloadType);
    RtpPut16(m_packet + 2, m_sequence);
    RtpPut32(m_packet + 4, timestamp);
    RtpPut32(m_packet + 8, m_ssrc);
    if (!extension) return kRtpHeaderSize;
    uint8_t *x = m_packet + kRtpHeaderSize;
    RtpPut16(x, kReplayExtensionProfile);
    RtpPut16(x + 2, kReplayExtensionWords);
    uint64_t ntp = RtpNtpTime(m_pendingMarks->u64CaptureUs);
    RtpPut32(x + 4, static_cast<uint32_t>(ntp >> 32));
    RtpPut32(x + 8, static_cast<uint32_t>(ntp));
    x[12] = m_pendingMarks->u8Flags;
    x[13] = m_pendingMarks->u8CSeq;
    x[14] = 0;
    x[15] = 0;
    m_pendingMarks = nullptr;
    return kRtpHeaderSize + kReplayExtensionSize;
}

bool RtpPacketizer::Finish(size_t size, const RtpSend &send) {
    ++m_sequence;
    ++m_packets;
    m_octets += static_cast<uint32_t>(size - kRtpHeaderSize);
    return send(m_packet, size);
}

bool RtpPacketizer::SendFrame(const uint8_t *data, size_t size, uint32_t timestamp,
                              const RtpFrameMarks *marks, const RtpSend &send) {
    m_pendingMarks = marks;
    bool sent;
    switch (m_payload) {
        case RtpPayload::kH264:
        case RtpPayload::kH265:
            sent = SendVideo(data, size, timestamp, send);
            break;
        case RtpPayload::kG711:
            sent = SendG711(data, size, timestamp, send);
            break;
        default:
            sent = SendAac(data, size, timestamp, send);
            break;
    }
    m_pendingMarks = nullptr;
    return sent;
}

uint16_t RtpPacketizer::PacketsFor(const uint8_t *data, size_t size) const {
    RtpPacketizer probe = *this;
    probe.SendFrame(data, size, 0, nullptr, [](const uint8_t *, size_t) { return true; });
    return static_cast<uint16_t>(probe.m_sequence - m_sequence);
}

bool RtpPacketizer::SendVideo(const uint8_t *data, size_t size, uint32_t timestamp, const RtpSend &send) {
    size_t at = 0;
    const uint8_t *nal;
    size_t length;
    if (!NextNal(data, size, &at, &nal, &length)) return true;
    for (;;) {
        const uint8_t *next;
        size_t nextLength;
        size_t nextAt = at;
        bool more = NextNal(data, size, &nextAt, &next, &nextLength);
        if (length > 0 && !SendNal(nal, length, !more, timestamp, send)) return false;
        if (!more) return true;
        nal = next;
        length = nextLength;
        at = nextAt;
    }
}

bool RtpPacketizer::SendNal(const uint8_t *nal, size_t size, bool lastOfUnit, uint32_t timestamp,
                            const RtpSend &send) {
    bool h265 = m_payload == RtpPayload::kH265;
    size_t headerSize = h265 ? 2 : 1;
    size_t room = kRtpMaxPacket - kRtpHeaderSize - (m_pendingMarks ? kReplayExtensionSize : 0);
    if (size <= room) {
        size_t at = StartPacket(lastOfUnit, timestamp);
        memcpy(m_packet + at, nal, size);
        return Finish(at + size, send);
    }
    if (size <= headerSize) return true;
    uint8_t fuType =
        h265 ? static_cast<uint8_t>(H265NalType(nal[0])) : static_cast<uint8_t>(H264NalType(nal[0]));
    const uint8_t *p = nal + headerSize;
    size_t left = size - headerSize;
    bool first = true;
    while (left > 0) {
        size_t at = StartPacket(false, timestamp);
        size_t overhead = h265 ? kH265FuOverhead : kH264FuOverhead;
        size_t chunk = std::min(left, kRtpMaxPacket - at - overhead);
        bool last = chunk == left;
        uint8_t fuHeader = static_cast<uint8_t>((first ? kFuStart : 0) | (last ? kFuEnd : 0) | fuType);
        if (h265) {
            m_packet[at] = static_cast<uint8_t>((nal[0] & 0x81) | (kH265Fu << 1));
            m_packet[at + 1] = nal[1];
            m_packet[at + 2] = fuHeader;
        } else {
            m_packet[at] = static_cast<uint8_t>((nal[0] & 0xE0) | kH264FuA);
            m_packet[at + 1] = fuHeader;
        }
        if (last && lastOfUnit) m_packet[1] |= kRtpMarkerBit;
        memcpy(m_packet + at + overhead, p, chunk);
        if (!Finish(at + overhead + chunk, send)) return false;
        p += chunk;
        left -= chunk;
        first = false;
    }
    return true;
}

bool RtpPacketizer::SendG711(const uint8_t *data, size_t size, uint32_t timestamp, const RtpSend &send) {
    // One byte per sample: a frame too long for a packet goes on with the time stamp moved on.
    size_t sent = 0;
    while (sent < size) {
        size_t at = StartPacket(false, timestamp + static_cast<uint32_t>(sent));
        size_t chunk = std::min(size - sent, kRtpMaxPacket - at);
        memcpy(m_packet + at, data + sent, chunk);
        if (!Finish(at + chunk, send)) return false;
        sent += chunk;
    }
    return true;
}

bool RtpPacketizer::SendAac(const uint8_t *data, size_t size, uint32_t timestamp, const RtpSend &send) {
    // The recorded frame starts with an ADTS header; RTP carries the raw access unit.
    AdtsHeader adts;
    if (AdtsParse(data, size, &adts)) {
        data += kAdtsHeaderSize;
        size = adts.frameLength - kAdtsHeaderSize;
    }
    if (size == 0 || size > kAacMaxAuSize) return true;
    size_t sent = 0;
    while (sent < size) {
        size_t at = StartPacket(false, timestamp);
        size_t chunk = std::min(size - sent, kRtpMaxPacket - at - kAacHeaderSectionBytes);
        if (sent + chunk == size) m_packet[1] |= kRtpMarkerBit;
        RtpPut16(m_packet + at, kAacAuHeaderBytes * 8);
        RtpPut16(m_packet + at + 2, static_cast<uint32_t>(size) << kAacAuSizeShift);
        memcpy(m_packet + at + kAacHeaderSectionBytes, data + sent, chunk);
        if (!Finish(at + kAacHeaderSectionBytes + chunk, send)) return false;
        sent += chunk;
    }
    return true;
}
