// SPS/PPS block (0x62788C7C): codec parameter sets per stream index.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

struct ShmBlock;

inline constexpr size_t kSpsPpsDataMax = 1024;

struct AVSpsPpsShmEntry {
    uint8_t Data[kSpsPpsDataMax];  // parameter-set bytes
    uint32_t Length;               // valid bytes, 0..1024
    uint32_t Valid;                // 1 once written
};
static_assert(sizeof(AVSpsPpsShmEntry) == 1032);
static_assert(offsetof(AVSpsPpsShmEntry, Length) == 1024);

inline constexpr key_t kSpsPpsShmKey = 0x62788C7C;
inline constexpr size_t kSpsPpsShmSize = 24832;
inline constexpr uint32_t kSpsPpsIndexCount = 24;
inline constexpr size_t kSpsPpsImageSize = kSpsPpsIndexCount * sizeof(AVSpsPpsShmEntry);
static_assert(kSpsPpsImageSize == 24768);

int libAVSpsPpsProcessInit();
int libAVSpsPpsProcessDeinit();
int AVSpsPpsDataWrite(uint32_t index, const uint8_t *data, uint32_t length);
// Copies the 24768-byte image (24 AVSpsPpsShmEntry) into buffer.
int AVSpsPpsDataRead(void *buffer);

ShmBlock *AVSpsPpsShmBlock();
