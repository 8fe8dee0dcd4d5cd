// AVI reader: parses a file (of the AVI export or similar) and returns its
// chunks one by one. Progress and problems are printed as DEBUG lines.
#pragma once

#include <cstdint>

#include "tools/avi_context.h"

// Opens path for reading in a new context; nullptr on failure.
AviContext *AF_Open(const char *path);
// Closes and frees (AviRelease).
int AF_Close(AviContext *ctx);

// Walks the top-level chunks: RIFF size, hdrl, movi and idx1 positions, and
// the main-header words. 0 or -1.
int AF_ParserHead(AviContext *ctx);

// Without an idx1 chunk: rebuilds the index into the temporary file by
// walking movi. 0 or -1.
int AF_ParserIndex(AviContext *ctx);

// Positions at chunk n of movi (video and audio counted together from 0).
// 0 or -1.
int AF_SeekToFrame(AviContext *ctx, int n);

// Reads the next chunk's payload into buffer (at most *length bytes; *length
// becomes the bytes read), its kind (kAviFrameVideo/kAviFrameAudio) and its
// number within its kind. 0 or -1.
int AF_GetNextFrame(AviContext *ctx, uint8_t *buffer, uint32_t *length, int *kind, uint32_t *number);
