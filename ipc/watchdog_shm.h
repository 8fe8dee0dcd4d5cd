// Watchdog block (0x61788C7D): a liveness time stamp per camera process.
// The record daemon reports as source 7.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

struct ShmBlock;

struct WatchDogShmEntry {
    uint32_t Time;    // time of the last report (s since 1970)
    uint32_t Status;  // status word of the source
};
static_assert(sizeof(WatchDogShmEntry) == 8);

inline constexpr key_t kWatchDogShmKey = 0x61788C7D;
inline constexpr size_t kWatchDogShmSize = 200;
inline constexpr uint32_t kWatchDogSourceCount = 17;
inline constexpr size_t kWatchDogImageSize = kWatchDogSourceCount * sizeof(WatchDogShmEntry);
inline constexpr uint32_t kWatchDogSourceAVRecord = 7;
static_assert(kWatchDogImageSize == 136);

int libWatchDogInit();
int libWatchDogDeinit();
int WatchDogStatusWrite(uint32_t source, uint32_t status);
int WatchDogDataWrite(uint32_t source);
// Copies the 136-byte image (17 WatchDogShmEntry) into buffer and prints
// the time words on standard output.
int WatchDogDataRead(void *buffer);

ShmBlock *WatchDogShmBlock();
