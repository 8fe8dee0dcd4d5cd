#include "sysconfig/share_mem.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstring>

namespace {

int g_transferShmId = -1;

bool InTransferSegment(uint32_t offset, size_t length) {
    return offset <= kSysTransferSize && length <= kSysTransferSize - offset;
}

// Attaches, runs the copy on the attached base, detaches.
template <typename Copy>
int WithSegment(int shmId, Copy copy) {
    void *base = shmat(shmId, nullptr, 0);
    if (base == reinterpret_cast<void *>(-1)) return -1;
    copy(static_cast<uint8_t *>(base));
    shmdt(base);
    return 0;
}

}  // namespace

int ShareMemOpen(key_t key, size_t size, int mode) {
    int id = shmget(key, size, IPC_CREAT | mode);
    if (id < 0) id = shmget(key, 0, 0);
    return id;
}

int ShareMemInit(key_t key) {
    g_transferShmId = ShareMemOpen(key, kSysTransferSize, kSysTransferShmMode);
    return g_transferShmId;
}

int ShareMemWriteId(int shmId, uint32_t offset, const void *buf, size_t length) {
    if (buf == nullptr || !InTransferSegment(offset, length)) return -1;
    return WithSegment(shmId, [&](uint8_t *base) { std::memcpy(base + offset, buf, length); });
}

int ShareMemReadId(int shmId, uint32_t offset, void *buf, size_t length) {
    if (buf == nullptr || !InTransferSegment(offset, length)) return -1;
    return WithSegment(shmId, [&](uint8_t *base) { std::memcpy(buf, base + offset, length); });
}

int ShareMemWrite(uint32_t offset, const void *buf, size_t length) {
    return ShareMemWriteId(g_transferShmId, offset, buf, length);
}

int ShareMemRead(uint32_t offset, void *buf, size_t length) {
    return ShareMemReadId(g_transferShmId, offset, buf, length);
}
