// Fuzz entry: the AVI reader over an arbitrary file: open (head and index),
// every chunk, and positioning.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "tools/avi_reader.h"

namespace fuzz {

inline constexpr uint32_t kAviBufferSize = 1 << 16;
inline constexpr int kAviMaxChunks = 2000;

inline void ReadChunks(AviContext *ctx, std::vector<uint8_t> &buf) {
    for (int i = 0; i < kAviMaxChunks; ++i) {
        uint32_t length = static_cast<uint32_t>(buf.size());
        int kind;
        uint32_t number;
        if (AF_GetNextFrame(ctx, buf.data(), &length, &kind, &number) != 0) return;
        if (length > buf.size()) __builtin_trap();  // reported more than the buffer holds
    }
}

inline int FuzzAviReader(const uint8_t *data, size_t size) {
    static std::vector<uint8_t> buf(kAviBufferSize);
    const std::string path = std::string(ScratchDir()) + "/clip.avi";
    if (!WriteWholeFile(path, data, size)) return 0;
    AviContext *ctx = AF_Open(path.c_str());
    if (ctx == nullptr) return 0;
    ReadChunks(ctx, buf);
    for (int n : {0, 3, 1000}) {
        if (AF_SeekToFrame(ctx, n) == 0) ReadChunks(ctx, buf);
    }
    AF_Close(ctx);
    return 0;
}

}  // namespace fuzz
