#include "avrecord_lib/ps_packetizer.h"

#include <cstdio>
#include <cstring>

#include "avrecord_lib/ps_format.h"
#include "common/log.h"
#include "common/nal_unit.h"

const uint8_t kRecordFileHeader[kRecordFileHeaderSize] = {
    'I',  'M',  'K',  'H',  0x01, 0x02, 0x00, 0x00, 0x02, 0x00, 0x00, 0x01,
    0x01, 0x20, 0x01, 0x10, 0x80, 0xBB, 0x00, 0x00, 0x00, 0xFA, 0x00, 0x00,  // then 16 zero bytes
};

namespace {

constexpr uint64_t kTimeStampMask = (uint64_t{1} << 33) - 1;
constexpr double kTimeStampClock = 90000;
constexpr uint32_t kLargeFrameLog = 65536;

// program_mux_rate 10240 with its markers, then five reserved ones and a
// pack_stuffing_length of 4 (the stuffing carries the wall-clock time).
constexpr uint8_t kPackMuxRate[4] = {0x00, 0xA0, 0x03, 0xFC};

constexpr uint8_t kSystemHeader[kSystemHeaderSize] = {
    0x00, 0x00, 0x01, kPsSystemHeaderId, 0x00, 0x0C,  // header_length 12
    0x82, 0x73, 0x31,                                 // rate_bound 80280
    0x04,                                             // audio_bound 1
    0xE1,                                             // audio/video lock, video_bound 1
    0x7F,                                             // no packet rate restriction
    0xE0, 0xE0, 0x80,                                 // E0: scale 1, 128 KiB
    0xC0, 0xC0, 0x08,                                 // C0: scale 0, 1 KiB
};

constexpr uint8_t kStreamMapFixed[] = {0x08, 0x1F, 0xFE, 0xF0, 0x87};
constexpr uint8_t kStreamMapFiller[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x05, 0x07, 0x08};

void PutLe16(uint8_t *out, uint16_t value) {
    out[0] = static_cast<uint8_t>(value);
    out[1] = static_cast<uint8_t>(value >> 8);
}

void PutLe32(uint8_t *out, uint32_t value) {
    for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}

void PutStartCode(uint8_t *out, uint8_t id) {
    memcpy(out, kPsStartCodePrefix, sizeof kPsStartCodePrefix);
    out[3] = id;
}

uint8_t AudioStreamType(uint16_t audioCodec, uint8_t inBuffer) {
    const PsAudioType *type = PsAudioTypeOfCodec(audioCodec);
    return type != nullptr ? type->streamType : inBuffer;  // other codes leave the byte as it stands
}

// The part's bytes as video PES packets of at most kPesMaxPayload bytes.
int PackPart(const uint8_t *part, uint32_t length, uint8_t *out, uint32_t n) {
    int written = 0;
    while (length > 0) {
        uint32_t chunk = length < kPesMaxPayload ? length : kPesMaxPayload;
        written += makePesHeader(out + written, n, kPesStreamVideo, kPsTimeStampRate, chunk);
        memcpy(out + written, part, chunk);
        written += static_cast<int>(chunk);
        part += chunk;
        length -= chunk;
    }
    return written;
}

bool IsNalStartCode(const uint8_t *at) { return memcmp(at, kNalStartCode, sizeof kNalStartCode) == 0; }

// Offsets of the first kMaxNalParts four-byte start codes; returns how many.
int FindNalParts(const uint8_t *data, uint32_t length, uint32_t offsets[kMaxNalParts]) {
    int found = 0;
    for (uint32_t pos = 0; pos + sizeof kNalStartCode < length && found < kMaxNalParts; ++pos) {
        if (IsNalStartCode(data + pos)) {
            offsets[found++] = pos;
            pos += sizeof kNalStartCode - 1;
        }
    }
    return found;
}

}  // namespace

uint64_t PSTimeStamp(uint32_t n, int rate) {
    float step = static_cast<float>(kTimeStampClock / rate);
    float product = step * static_cast<float>(n);
    return static_cast<uint64_t>(product);
}

uint64_t PSDecodePts(const uint8_t *p) {
    return (uint64_t{p[0] & 0x0Eu} << 29) | (uint64_t{p[1]} << 22) | (uint64_t{p[2] & 0xFEu} << 14) |
           (uint64_t{p[3]} << 7) | (p[4] >> 1);
}

int makePackHeader(uint8_t *out, uint32_t n, int /*selector*/, int rate, uint32_t time) {
    uint64_t scr = PSTimeStamp(n, rate) & kTimeStampMask;
    PutStartCode(out, kPsPackId);
    out[4] = static_cast<uint8_t>(0x44 | ((scr >> 27) & 0x38) | ((scr >> 28) & 0x03));
    out[5] = static_cast<uint8_t>(scr >> 20);
    out[6] = static_cast<uint8_t>(((scr >> 12) & 0xF8) | 0x04 | ((scr >> 13) & 0x03));
    out[7] = static_cast<uint8_t>(scr >> 5);
    out[8] = static_cast<uint8_t>(((scr << 3) & 0xF8) | 0x04);
    out[9] = 0x01;
    memcpy(out + 10, kPackMuxRate, sizeof kPackMuxRate);
    PutLe32(out + 14, time);
    return kPackHeaderSize;
}

int makeSystemHeader(uint8_t *out) {
    memcpy(out, kSystemHeader, sizeof kSystemHeader);
    return kSystemHeaderSize;
}

int makeStreamMapHeader(uint8_t *out, const PSStreamParam *param) {
    PutStartCode(out, kPsStreamMapId);
    out[4] = 0x00;  // program_stream_map_length 42
    out[5] = 0x2A;
    out[6] = 0xE1;  // current_next_indicator, version 1
    out[7] = 0xFF;
    out[8] = 0x00;  // program_stream_info_length 0
    out[9] = 0x00;
    out[10] = 0x00;  // elementary_stream_map_length 32
    out[11] = 0x20;
    out[kStreamMapVideoTypeAt] =
        param->u16VideoCodec == kVideoCodecH265 ? kPsVideoTypeH265 : kPsVideoTypeH264;
    out[13] = kPsVideoStreamId;
    out[14] = 0x00;  // elementary_stream_info_length 12
    out[15] = 0x0C;
    PutLe16(out + kStreamMapWidthAt, param->u16Width);
    PutLe16(out + kStreamMapHeightAt, param->u16Height);
    PutLe16(out + 20, param->u16VideoParamA);
    out[22] = static_cast<uint8_t>(param->u16VideoParamB);
    memcpy(out + 23, kStreamMapFixed, sizeof kStreamMapFixed);
    out[kStreamMapAudioTypeAt] = AudioStreamType(param->u16AudioCodec, out[kStreamMapAudioTypeAt]);
    out[29] = kPsAudioStreamId;
    out[30] = 0x00;
    out[31] = 0x0C;
    PutLe16(out + 32, param->u16AudioSampleRate);
    PutLe16(out + 34, param->u16AudioValue);
    memcpy(out + 36, kStreamMapFiller, sizeof kStreamMapFiller);
    PutLe32(out + 44, 0);  // CRC_32, always zero
    return 0;
}

int makePesHeader(uint8_t *out, uint32_t n, int selector, int rate, uint32_t payloadLen) {
    if (selector != kPesStreamVideo && selector != kPesStreamAudio) return -1;
    uint64_t pts = PSTimeStamp(n, rate) & kTimeStampMask;
    uint32_t packetLength = payloadLen == 0 ? 0 : payloadLen + kPesLengthExtra;
    PutStartCode(out, selector == kPesStreamVideo ? kPsVideoStreamId : kPsAudioStreamId);
    out[4] = static_cast<uint8_t>(packetLength >> 8);
    out[5] = static_cast<uint8_t>(packetLength);
    out[6] = 0x80;
    out[7] = 0x80;  // PTS only
    out[8] = 0x05;  // PES_header_data_length
    out[9] = static_cast<uint8_t>(0x21 | ((pts >> 29) & 0x0E));
    out[10] = static_cast<uint8_t>(pts >> 22);
    out[11] = static_cast<uint8_t>(((pts >> 14) & 0xFE) | 0x01);
    out[12] = static_cast<uint8_t>(pts >> 7);
    out[13] = static_cast<uint8_t>(((pts << 1) & 0xFE) | 0x01);
    return kPesHeaderSize;
}

int makePackPesHeader(uint8_t *out, uint32_t n, int selector, uint32_t payloadLen, uint32_t time) {
    int written = makePackHeader(out, n, selector, kPsTimeStampRate, time);
    int pes = makePesHeader(out + written, n, selector, kPsTimeStampRate, payloadLen);
    return pes < 0 ? -1 : written + pes;
}

int makeIFrameHeader(const uint8_t *data, uint32_t length, uint8_t *out, uint32_t n, int selector,
                     const PSStreamParam *param, uint32_t time) {
    if (data == nullptr || out == nullptr || param == nullptr) {
        printf("%s %d NULL\n", __func__, __LINE__);
        return -1;
    }
    int written = makePackHeader(out, n, selector, kPsTimeStampRate, time);
    written += makeSystemHeader(out + written);
    makeStreamMapHeader(out + written, param);
    written += kStreamMapSize;
    if (length == sizeof kNalStartCode) return written;

    uint32_t offsets[kMaxNalParts];
    int parts = FindNalParts(data, length, offsets);
    for (int i = 0; i < parts; ++i) {
        uint32_t end = i + 1 < parts ? offsets[i + 1] : length;
        written += PackPart(data + offsets[i], end - offsets[i], out + written, n);
    }
    return written;
}

int makePFrameHeader(const uint8_t *data, uint32_t length, uint8_t *out, uint32_t n, int selector,
                     uint32_t time) {
    if (data == nullptr || out == nullptr) {
        printf("%s %d NULL\n", __func__, __LINE__);
        return -1;
    }
    if (length >= kLargeFrameLog) {
        LogTrace("%s %d ####################################################### uiDataLen =  %d\n", __func__,
                 __LINE__, static_cast<int>(length));
    }
    int written = makePackHeader(out, n, selector, kPsTimeStampRate, time);
    return written + PackPart(data, length, out + written, n);
}

int makeVideoPSFrame(int keyFlag, const uint8_t *data, uint32_t length, uint8_t *out, uint32_t n,
                     const PSStreamParam *param, uint32_t time) {
    if (data == nullptr || out == nullptr) return -1;
    if (keyFlag) return makeIFrameHeader(data, length, out, n, kPesStreamVideo, param, time);
    return makePFrameHeader(data, length, out, n, kPesStreamVideo, time);
}

int makeAudioPSFrame(const uint8_t *data, uint32_t length, uint8_t *out, uint32_t n) {
    if (data == nullptr || out == nullptr || length > kAudioMaxPayload) return -1;
    int written = makePesHeader(out, n + 1, kPesStreamAudio, kPsTimeStampRate, length);
    memcpy(out + written, data, length);
    return written + static_cast<int>(length);
}
