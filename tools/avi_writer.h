// AVI export: encoded H.264/H.265 frames, with optional audio, into an AVI
// file. One export at a time, on a process-wide context.
#pragma once

#include <cstdint>

#include "tools/avi_context.h"

// Bytes of the header written at offset 0, up to the movi type word.
inline constexpr int kAviHeaderWriteSize = 524;

// Starts an export: 0, or -1 for a frame rate below 1. A file that cannot be
// created is not reported here; the frame writes then refuse.
int H264ToAviStart(const char *path, int codec, int width, int height, int frameRate, int audioFormat,
                   int audioChannels, int audioRate, int audioBits);

// Appends one frame: kind kAviFrameVideo or kAviFrameAudio (others are
// ignored). 0, or -1 when no file is open or a write falls short.
int H264ToAviWriteFrame(const void *data, uint32_t length, int kind);

// Finishes the export: index appended, final header, temporary index
// removed. 0, or -1 when no export is open or the finish failed.
int H264ToAviStop();

// The header for the context's current counters (kAviHeaderWriteSize bytes).
void AviBuildHeader(const AviContext &ctx, uint8_t *out);

// Writes the header at offset 0. 0 or -1.
int AviWriteHeader(const AviContext &ctx);

// Write mode close: "idx1", the index size and the index entries at the end,
// then the final header. 0 or -1.
int AviFinishFile(AviContext &ctx);
