#include "avrecord_lib/ps_format.h"

#include <cstring>

namespace {

uint16_t Le16(const uint8_t *b) { return static_cast<uint16_t>(b[0] | (b[1] << 8)); }

}  // namespace

const PsAudioType *PsAudioTypeOfCodec(uint16_t codec) {
    for (const PsAudioType &type : kPsAudioTypes) {
        if (type.codec == codec) return &type;
    }
    return nullptr;
}

const PsAudioType *PsAudioTypeOfStream(uint8_t streamType) {
    for (const PsAudioType &type : kPsAudioTypes) {
        if (type.streamType == streamType) return &type;
    }
    return nullptr;
}

const PsAudioType *PsAudioTypeOfSection(uint8_t sectionType) {
    for (const PsAudioType &type : kPsAudioTypes) {
        if (type.sectionType == sectionType) return &type;
    }
    return nullptr;
}

bool PsIsStartCode(const uint8_t *b, uint8_t id) {
    return memcmp(b, kPsStartCodePrefix, sizeof kPsStartCodePrefix) == 0 &&
           b[sizeof kPsStartCodePrefix] == id;
}

bool PsDecodeKeyFrameHeaders(const uint8_t *headers, PsStreamMap *map) {
    const uint8_t *system = headers + kPackHeaderSize;
    const uint8_t *streams = system + kSystemHeaderSize;
    if (!PsIsStartCode(headers, kPsPackId) || !PsIsStartCode(system, kPsSystemHeaderId)) return false;
    map->videoCodec = streams[kStreamMapVideoTypeAt] == kPsVideoTypeH265 ? kVideoCodecH265 : kVideoCodecH264;
    map->width = Le16(streams + kStreamMapWidthAt);
    map->height = Le16(streams + kStreamMapHeightAt);
    map->audio = PsAudioTypeOfStream(streams[kStreamMapAudioTypeAt]);
    return true;
}
