#include "replay/rtp_rtcp.h"

#include <cstring>

#include "replay/rtp_bytes.h"
#include "replay/rtp_packetizer.h"

namespace {

constexpr uint8_t kRtcpVersion2 = 0x80;
constexpr uint8_t kRtcpSr = 200;
constexpr uint8_t kRtcpSdes = 202;
constexpr uint8_t kRtcpBye = 203;
constexpr uint8_t kRtcpLastType = 204;
constexpr uint8_t kSdesCname = 1;
constexpr size_t kSrSize = 28;
constexpr char kCname[] = "avrecord-replay";

// A packet header: count in the low five bits, length in 32-bit words less one.
void Header(uint8_t *p, uint8_t count, uint8_t type, size_t size) {
    p[0] = static_cast<uint8_t>(kRtcpVersion2 | count);
    p[1] = type;
    RtpPut16(p + 2, static_cast<uint32_t>(size / 4 - 1));
}

size_t SenderReport(const RtcpSender &s, uint8_t *p) {
    Header(p, 0, kRtcpSr, kSrSize);
    RtpPut32(p + 4, s.u32Ssrc);
    uint64_t ntp = RtpNtpTime(s.u64CaptureUs);
    RtpPut32(p + 8, static_cast<uint32_t>(ntp >> 32));
    RtpPut32(p + 12, static_cast<uint32_t>(ntp));
    RtpPut32(p + 16, s.u32Timestamp);
    RtpPut32(p + 20, s.u32Packets);
    RtpPut32(p + 24, s.u32Octets);
    return kSrSize;
}

size_t SourceDescription(uint32_t ssrc, uint8_t *p) {
    size_t nameSize = sizeof kCname - 1;
    size_t size = (4 + 4 + 2 + nameSize + 1 + 3) / 4 * 4;  // item list ends in a zero byte, padded to words
    memset(p, 0, size);
    Header(p, 1, kRtcpSdes, size);
    RtpPut32(p + 4, ssrc);
    p[8] = kSdesCname;
    p[9] = static_cast<uint8_t>(nameSize);
    memcpy(p + 10, kCname, nameSize);
    return size;
}

size_t Goodbye(uint32_t ssrc, uint8_t *p) {
    Header(p, 1, kRtcpBye, 8);
    RtpPut32(p + 4, ssrc);
    return 8;
}

}  // namespace

size_t RtcpCompound(const RtcpSender &sender, bool bBye, uint8_t out[kRtcpMaxCompound]) {
    size_t size = SenderReport(sender, out);
    size += SourceDescription(sender.u32Ssrc, out + size);
    if (bBye) size += Goodbye(sender.u32Ssrc, out + size);
    return size;
}

bool RtcpLooksValid(const uint8_t *data, size_t size) {
    return size >= 8 && (data[0] & 0xC0) == kRtcpVersion2 && data[1] >= kRtcpSr && data[1] <= kRtcpLastType;
}
