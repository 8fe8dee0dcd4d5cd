// The program stream as it lies on the card, named and decoded in one
// place: its start codes, the stream map every key frame carries and what
// the map says (video codec, picture size, audio type). The packetizer
// writes with these; the playback reader, the index check and the recovery
// read with them.
#pragma once

#include <cstdint>

#include "avrecord_lib/index_records.h"
#include "avrecord_lib/ps_packetizer.h"

inline constexpr uint8_t kPsStartCodePrefix[3] = {0x00, 0x00, 0x01};
inline constexpr uint32_t kPsStartCodeSize = 4;  // the prefix and the id
inline constexpr uint8_t kPsPackId = 0xBA;
inline constexpr uint8_t kPsSystemHeaderId = 0xBB;
inline constexpr uint8_t kPsStreamMapId = 0xBC;
inline constexpr uint8_t kPsVideoStreamId = 0xE0;
inline constexpr uint8_t kPsAudioStreamId = 0xC0;

// Stream types of the stream map.
inline constexpr uint8_t kPsVideoTypeH264 = 0x1B;
inline constexpr uint8_t kPsVideoTypeH265 = 0x24;

// Fields of the stream map, from its start code on.
inline constexpr int kStreamMapVideoTypeAt = 12;
inline constexpr int kStreamMapWidthAt = 16;  // little-endian, as recorded
inline constexpr int kStreamMapHeightAt = 18;
inline constexpr int kStreamMapAudioTypeAt = 28;

// One audio codec under its three names: the stream parameters' code, the
// stream map's stream type and the section record's audio type.
struct PsAudioType {
    uint16_t codec;       // kAudioCodecAac, ...
    uint8_t streamType;   // in the stream map
    uint8_t sectionType;  // kSectionAudioAac, ...
    const char *name;     // as the card tool names it
};
inline constexpr PsAudioType kPsAudioTypes[] = {
    {kAudioCodecAac, 0x0F, kSectionAudioAac, "aac"},
    {kAudioCodecG711U, 0x91, kSectionAudioG711U, "g711u"},
    {kAudioCodecG711A, 0x90, kSectionAudioG711A, "g711a"},
};

// nullptr for a code or type no recorder writes.
const PsAudioType *PsAudioTypeOfCodec(uint16_t codec);
const PsAudioType *PsAudioTypeOfStream(uint8_t streamType);
const PsAudioType *PsAudioTypeOfSection(uint8_t sectionType);

// True when b starts with the start code of id.
bool PsIsStartCode(const uint8_t *b, uint8_t id);

// What a key frame's stream map says.
struct PsStreamMap {
    uint16_t videoCodec;  // kVideoCodecH264 or kVideoCodecH265
    uint16_t width;       // picture size as recorded
    uint16_t height;
    const PsAudioType *audio;  // nullptr: a type no recorder writes
};

// Decodes the headers in front of a key frame (pack, system header, stream
// map: kKeyFrameHeadersSize bytes). False when they are no key frame's.
bool PsDecodeKeyFrameHeaders(const uint8_t *headers, PsStreamMap *map);
