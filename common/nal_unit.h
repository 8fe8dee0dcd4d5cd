// NAL unit types of the H.264 and H.265 streams the encoder hands over,
// read from the first byte of a unit's header (after its start code).
#pragma once

#include <cstdint>

// The four-byte start code the encoder puts before every unit, and where the
// unit's header byte sits behind it.
inline constexpr uint8_t kNalStartCode[] = {0x00, 0x00, 0x00, 0x01};
inline constexpr uint32_t kNalHeaderAt = sizeof kNalStartCode;

// H.264: the low five bits of the one-byte header.
inline constexpr int kH264NalSlice = 1;
inline constexpr int kH264NalIdr = 5;
inline constexpr int kH264NalSei = 6;
inline constexpr int kH264NalSps = 7;
inline constexpr int kH264NalPps = 8;
inline constexpr int kH264NalAud = 9;
inline constexpr int kH264NalPrefixFirst = 14;  // prefix and subset units open an access unit
inline constexpr int kH264NalPrefixLast = 18;

// H.265: six bits behind the forbidden bit of the two-byte header.
inline constexpr int kH265NalTrail = 1;
inline constexpr int kH265NalIrapFirst = 16;
inline constexpr int kH265NalIrapLast = 23;
inline constexpr int kH265NalVclLast = 31;
inline constexpr int kH265NalVps = 32;
inline constexpr int kH265NalSps = 33;
inline constexpr int kH265NalPps = 34;
inline constexpr int kH265NalAud = 35;
inline constexpr int kH265NalPrefixSei = 39;
inline constexpr int kH265NalSuffixSei = 40;
inline constexpr int kH265NalReservedFirst = 41;
inline constexpr int kH265NalReservedLast = 44;
inline constexpr int kH265NalUnspecFirst = 48;
inline constexpr int kH265NalUnspecLast = 55;

constexpr int H264NalType(uint8_t header) { return header & 0x1F; }
constexpr int H265NalType(uint8_t header) { return (header >> 1) & 0x3F; }

// A slice, an IDR slice or a parameter set of H.264: how the recorder tells
// an H.264 frame from an H.265 one by its first unit.
constexpr bool H264PictureOrParamSet(int type) {
    return type == kH264NalSlice || type == kH264NalIdr || type == kH264NalSps || type == kH264NalPps;
}
