// Big-endian fields of RTP and RTCP packets.
#pragma once

#include <cstdint>

inline void RtpPut16(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
inline void RtpPut32(uint8_t *p, uint32_t v) {
    RtpPut16(p, v >> 16);
    RtpPut16(p + 2, v);
}
inline uint32_t RtpGet16(const uint8_t *p) { return static_cast<uint32_t>(p[0] << 8 | p[1]); }
inline uint32_t RtpGet32(const uint8_t *p) { return RtpGet16(p) << 16 | RtpGet16(p + 2); }
