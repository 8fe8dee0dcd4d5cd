// Annex-B elementary streams (H.264, H.265) cut into access units, the way
// the simulated encoder publishes them: every start code in its four-byte
// form, and every key frame carrying the parameter sets in front of its
// picture.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class VideoCodec { H264, H265 };

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

// One NAL unit: [begin, end) of the bytes after its start code.
struct NalSpan {
    size_t begin;
    size_t end;
};

// NAL units of an Annex-B buffer; empty when it does not begin with a start
// code (after leading zero bytes).
std::vector<NalSpan> SplitNalUnits(const std::vector<uint8_t> &data);

// Cuts a buffer into access units. false with a reason when the buffer is
// not Annex-B of the codec or holds no picture or no sequence parameter set.
bool ParseAnnexB(const std::vector<uint8_t> &data, VideoCodec codec, VideoInput *out, std::string *error);

// Reads a file; the codec is guessed from its first NAL unit. false with a
// reason ("cannot read", "not Annex-B", ...).
bool LoadAnnexB(const std::string &path, VideoInput *out, std::string *error);

// Picture size from a sequence parameter set (NAL bytes after the start
// code, header included). false when it cannot be parsed.
bool ParseSpsSize(const uint8_t *nal, size_t size, VideoCodec codec, uint16_t *width, uint16_t *height);
