#include "ipc/watchdog_shm.h"

#include <cstdio>
#include <ctime>

#include "common/card_time.h"
#include "common/log.h"
#include "ipc/shm_block.h"

namespace {
WatchDogShmEntry g_watchDogImage[kWatchDogSourceCount];
ShmBlock g_watchDogBlock = {kWatchDogShmKey,
                            kWatchDogShmSize,
                            kWatchDogImageSize,
                            reinterpret_cast<uint8_t *>(g_watchDogImage),
                            0,
                            -1};

// Stamps the entry of source and writes that entry alone.
int WriteEntry(uint32_t source, const char *caller, int line) {
    if (source >= kWatchDogSourceCount) {
        LogTrace("%s %d: source  %d is wrong!\n", caller, line, source);
        return -1;
    }
    if (!ShmBlockIdValid(&g_watchDogBlock, caller, line)) return -1;
    g_watchDogImage[source].Time = CardTimeNowOrZero();
    ShmBlockWriteImage(&g_watchDogBlock, source * sizeof(WatchDogShmEntry), sizeof(WatchDogShmEntry));
    return 0;
}
}  // namespace

ShmBlock *WatchDogShmBlock() { return &g_watchDogBlock; }

int libWatchDogInit() {
    if (ShmBlockAlreadyInit(&g_watchDogBlock, __func__, __LINE__)) return 0;
    return ShmBlockOpen(&g_watchDogBlock);
}

int libWatchDogDeinit() {
    ShmBlockDeinit(&g_watchDogBlock);
    return 0;
}

int WatchDogStatusWrite(uint32_t source, uint32_t status) {
    if (source < kWatchDogSourceCount && g_watchDogBlock.gShmId >= 0) g_watchDogImage[source].Status = status;
    return WriteEntry(source, __func__, __LINE__);
}

int WatchDogDataWrite(uint32_t source) { return WriteEntry(source, __func__, __LINE__); }

int WatchDogDataRead(void *buffer) {
    if (buffer == nullptr) return -1;
    if (!ShmBlockIdValid(&g_watchDogBlock, __func__, __LINE__)) return -1;
    ShmBlockReadImage(&g_watchDogBlock, buffer);
    const auto *entries = static_cast<const WatchDogShmEntry *>(buffer);
    printf("\n WatchDog time = ");
    for (uint32_t i = 0; i < kWatchDogSourceCount; ++i)
        printf("%lu ", static_cast<unsigned long>(entries[i].Time));
    printf("\n");
    return 0;
}
