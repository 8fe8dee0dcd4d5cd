#include "ipc/shm_block.h"

#include <cstring>

#include "common/log.h"
#include "ipc/sysv_ipc.h"

int ShmBlockOpen(ShmBlock *block) {
    memset(block->Image, 0, block->ImageSize);
    block->gShmId = IpcShareMemInit(block->Key, block->SegmentSize);
    if (block->gShmId < 0) return -1;
    block->InitFlag = 1;
    return 0;
}

bool ShmBlockAlreadyInit(const ShmBlock *block, const char *caller, int line) {
    if (block->InitFlag == 0) return false;
    LogTrace("%s %d: %s has already init!\n", caller, line, caller);
    return true;
}

bool ShmBlockIdValid(const ShmBlock *block, const char *caller, int line) {
    if (block->gShmId >= 0) return true;
    LogTrace("%s %d: gShmId %d has something wrong!\n", caller, line, block->gShmId);
    return false;
}

void ShmBlockWriteImage(const ShmBlock *block, size_t offset, size_t length) {
    IpcShareMemWrite(block->gShmId, offset, block->Image + offset, length);
}

void ShmBlockReadImage(const ShmBlock *block, void *buffer) {
    IpcShareMemRead(block->gShmId, 0, buffer, block->ImageSize);
}

void ShmBlockDeinit(ShmBlock *block) {
    block->InitFlag = 0;
    block->gShmId = -1;
    memset(block->Image, 0, block->ImageSize);
    ShmBlockWriteImage(block, 0, block->ImageSize);
}

void ShmBlockResetForTest(ShmBlock *block) {
    block->InitFlag = 0;
    block->gShmId = -1;
    memset(block->Image, 0, block->ImageSize);
}
