// Annex-B elementary streams (H.264, H.265) cut into access units, the way
// the simulated encoder publishes them: every start code in its four-byte
// form, and every key frame carrying the parameter sets in front of its
// picture. Access-unit boundaries and picture sizes come from the
// recorder's own stream code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "avrecord_lib/annexb_stream.h"

struct AccessUnit {
    std::vector<uint8_t> bytes;  // Annex-B, four-byte start codes
    bool key;                    // IDR / IRAP picture with parameter sets
};

struct VideoInput {
    VideoCodec codec;                // codec
    uint16_t width;                  // from the sequence parameter set
    uint16_t height;                 // from the sequence parameter set
    std::vector<AccessUnit> units;   // access units in file order
    std::vector<uint8_t> paramSets;  // the last parameter sets seen (Annex-B)
};

// Cuts a buffer into access units. false with a reason when the buffer is
// not Annex-B or holds no picture or no readable sequence parameter set.
bool ParseAnnexB(const std::vector<uint8_t> &data, VideoCodec codec, VideoInput *out, std::string *error);

// Reads a file; the codec is guessed from its first NAL unit. false with a
// reason ("cannot read", "not an Annex-B stream", ...).
bool LoadAnnexB(const std::string &path, VideoInput *out, std::string *error);
