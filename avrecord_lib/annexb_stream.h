// Annex-B elementary streams as the encoder hands them over: cutting a
// stream into access units and reading the picture size from a sequence
// parameter set. Used to import recorded clips.
#pragma once

#include <cstddef>
#include <cstdint>

enum class VideoCodec { kH264, kH265 };

// Position of the first start code (00 00 01, with one leading zero byte
// when there is one) at or after `from`; `size` when there is none.
size_t AnnexBNextStartCode(const uint8_t *data, size_t size, size_t from);

// End of the access unit that starts with the start code at `start`: the
// first start code of the next access unit, or `size`.
size_t AnnexBAccessUnitEnd(const uint8_t *data, size_t size, size_t start, VideoCodec codec);

struct PictureSize {
    uint32_t width;   // luma samples, cropping applied
    uint32_t height;  // luma samples, cropping applied
};

// Finds the first sequence parameter set of the access unit data[0..size)
// and reads the picture size from it. 0, or -1 when there is none or it
// cannot be read.
int AnnexBPictureSize(const uint8_t *data, size_t size, VideoCodec codec, PictureSize *picture);
