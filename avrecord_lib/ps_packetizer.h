// Program-stream packetizer: turns one encoded frame into the MPEG-2 program
// stream bytes stored in the media files. Pure functions writing into a
// caller buffer; no I/O. Deliberate departures from the standard that the
// playback and export readers rely on:
//   - SCR and PTS come from a frame counter at a fixed 25 fps, computed in
//     single precision (inexact above n = 74565, kept as it is);
//   - the pack stuffing bytes carry the frame's wall-clock time (UTC seconds);
//   - the stream map carries fixed filler bytes and a zero CRC.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int kPackHeaderSize = 18;
inline constexpr int kSystemHeaderSize = 18;
inline constexpr int kStreamMapSize = 48;
inline constexpr int kPesHeaderSize = 14;
inline constexpr int kKeyFrameHeadersSize = kPackHeaderSize + kSystemHeaderSize + kStreamMapSize;  // 84
inline constexpr int kRecordFileHeaderSize = 40;
inline constexpr uint32_t kPesMaxPayload = 65470;  // video payload bytes per PES packet
inline constexpr uint32_t kPesLengthExtra = 8;     // PES_packet_length = payload + 8
inline constexpr int kPsTimeStampRate = 25;        // the rate every time stamp is computed at
inline constexpr int kMaxNalParts = 3;

// Video and audio codec codes of the stream parameters.
inline constexpr uint16_t kVideoCodecH264 = 4096;
inline constexpr uint16_t kVideoCodecH265 = 4097;
inline constexpr uint16_t kAudioCodecAac = 8193;    // stream type 0x0F
inline constexpr uint16_t kAudioCodecG711U = 8194;  // stream type 0x91
inline constexpr uint16_t kAudioCodecG711A = 8195;  // stream type 0x90

// PES stream selectors.
inline constexpr int kPesStreamVideo = 0;  // stream id E0
inline constexpr int kPesStreamAudio = 1;  // stream id C0

// Stream parameters, filled by the frame writer at the first key frame of a
// recording and written into every key frame's stream map.
struct PSStreamParam {
    uint16_t u16VideoCodec;       // 4096 H.264, 4097 H.265
    uint16_t u16AudioCodec;       // 8193, 8194 or 8195
    uint16_t u16Width;            // picture width as recorded
    uint16_t u16Height;           // picture height as recorded
    uint16_t u16VideoParamA;      // channel video setting A (stored as is)
    uint16_t u16VideoParamB;      // channel video setting B (low byte used)
    uint16_t u16AudioSampleRate;  // 8000 or 48000
    uint16_t u16AudioValue;       // 33000 or 64000
};
static_assert(sizeof(PSStreamParam) == 16);

// The 40-byte constant placed in front of the first frame of every section.
extern const uint8_t kRecordFileHeader[kRecordFileHeaderSize];

// SCR/PTS value of frame counter n at the given rate, with the single
// precision product; the caller encodes its low 33 bits.
uint64_t PSTimeStamp(uint32_t n, int rate);

// Decodes the five PTS bytes of a PES header (33 bits).
uint64_t PSDecodePts(const uint8_t *pts);

// Buffer bytes a video frame of `length` bytes can take at most, headers
// and the record file header included.
constexpr size_t PSFrameBufferSize(uint32_t length) {
    return kRecordFileHeaderSize + kKeyFrameHeadersSize + size_t{length} +
           kPesHeaderSize * (length / kPesMaxPayload + kMaxNalParts);
}

// Header builders; each returns the bytes written (the stream map 0).
int makePackHeader(uint8_t *out, uint32_t n, int selector, int rate, uint32_t time);
int makeSystemHeader(uint8_t *out);
int makeStreamMapHeader(uint8_t *out, const PSStreamParam *param);
// -1 for a selector other than video or audio.
int makePesHeader(uint8_t *out, uint32_t n, int selector, int rate, uint32_t payloadLen);
int makePackPesHeader(uint8_t *out, uint32_t n, int selector, uint32_t payloadLen, uint32_t time);

// Key frame: pack, system header, stream map, then up to three NAL parts
// (split on four-byte start codes) as video PES packets. -1 for null data.
int makeIFrameHeader(const uint8_t *data, uint32_t length, uint8_t *out, uint32_t n, int selector,
                     const PSStreamParam *param, uint32_t time);
// Other video frame: pack header, then the whole frame as video PES packets.
int makePFrameHeader(const uint8_t *data, uint32_t length, uint8_t *out, uint32_t n, int selector,
                     uint32_t time);
// Chooses makeIFrameHeader or makePFrameHeader by the key flag.
int makeVideoPSFrame(int keyFlag, const uint8_t *data, uint32_t length, uint8_t *out, uint32_t n,
                     const PSStreamParam *param, uint32_t time);
// Audio: one bare PES header (PTS from n + 1) and the whole frame; length + 14.
// -1 for null pointers or a frame too long for one PES packet.
int makeAudioPSFrame(const uint8_t *data, uint32_t length, uint8_t *out, uint32_t n);
inline constexpr uint32_t kAudioMaxPayload = 0xFFFF - kPesLengthExtra;
