#include "ipc/sps_pps_shm.h"

#include <cstring>

#include "common/log.h"
#include "ipc/shm_block.h"
#include "ipc/sysv_ipc.h"

namespace {
AVSpsPpsShmEntry g_spsPpsImage[kSpsPpsIndexCount];
pthread_mutex_t g_spsPpsMutex[kSpsPpsIndexCount];
ShmBlock g_spsPpsBlock = {
    kSpsPpsShmKey, kSpsPpsShmSize, kSpsPpsImageSize, reinterpret_cast<uint8_t *>(g_spsPpsImage), 0, -1};
}  // namespace

ShmBlock *AVSpsPpsShmBlock() { return &g_spsPpsBlock; }

int libAVSpsPpsProcessInit() {
    LogTrace("%s %d: %s libAVSpsPpsProcessInit!\n", __func__, __LINE__, __func__);
    if (ShmBlockAlreadyInit(&g_spsPpsBlock, __func__, __LINE__)) return 0;
    if (ShmBlockOpen(&g_spsPpsBlock) != 0) {
        LogTrace("%s %d: %s gShmId = %d\n", __func__, __LINE__, __func__, g_spsPpsBlock.gShmId);
        return -1;
    }
    for (auto &mutex : g_spsPpsMutex) LinuxMutexCreate(&mutex);
    return 0;
}

int libAVSpsPpsProcessDeinit() {
    g_spsPpsBlock.InitFlag = 0;
    memset(g_spsPpsImage, 0, sizeof g_spsPpsImage);
    g_spsPpsBlock.gShmId = -1;
    for (auto &mutex : g_spsPpsMutex) LinuxMutexDestroy(&mutex);
    return 0;
}

int AVSpsPpsDataWrite(uint32_t index, const uint8_t *data, uint32_t length) {
    if (data == nullptr) return -1;
    if (length > kSpsPpsDataMax) {
        LogTrace("%s %d: index  %d  length = %d\n", __func__, __LINE__, index, length);
        return -1;
    }
    if (index >= kSpsPpsIndexCount) {
        LogTrace("%s %d: index  %d is wrong!\n", __func__, __LINE__, index);
        return -1;
    }
    if (!ShmBlockIdValid(&g_spsPpsBlock, __func__, __LINE__)) return -1;
    LinuxMutexLock(&g_spsPpsMutex[index]);
    AVSpsPpsShmEntry &entry = g_spsPpsImage[index];
    entry.Length = length;
    entry.Valid = 1;
    memcpy(entry.Data, data, length);
    ShmBlockWriteImage(&g_spsPpsBlock, 0, kSpsPpsImageSize);
    LinuxMutexUnlock(&g_spsPpsMutex[index]);
    return 0;
}

int AVSpsPpsDataRead(void *buffer) {
    if (buffer == nullptr) return -1;
    if (!ShmBlockIdValid(&g_spsPpsBlock, __func__, __LINE__)) return -1;
    ShmBlockReadImage(&g_spsPpsBlock, buffer);
    return 0;
}
