#include "sysconfig/sys_info.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstdio>

#include "sysconfig/share_mem.h"

namespace {

int g_sysInfoShmId = -1;
SysInfo *g_pSysConfig = nullptr;

// An existing segment of another size is accepted as long as every field
// this system reads lies inside it.
constexpr size_t kSysInfoReadSpan = sizeof(SysInfo) - sizeof(SysInfo::ucReserved10);

size_t SegmentSize(int shmId) {
    struct shmid_ds info {};
    if (shmctl(shmId, IPC_STAT, &info) != 0) return 0;
    return info.shm_segsz;
}

}  // namespace

int SysInfoAttach() {
    g_sysInfoShmId = ShareMemOpen(kSysInfoShmKey, kSysInfoSize, kSysInfoShmMode);
    fprintf(stderr, "shared memory size %d\n", static_cast<int>(kSysInfoSize));
    fprintf(stderr, "shared memory id:%d\n", g_sysInfoShmId);
    if (g_sysInfoShmId < 0) return -1;
    void *address = shmat(g_sysInfoShmId, nullptr, 0);
    if (address == reinterpret_cast<void *>(-1)) return -1;
    if (SegmentSize(g_sysInfoShmId) < kSysInfoReadSpan) {
        // A foreign segment under our key: reading the record from it would
        // run off its end.
        fprintf(stderr, "shared memory too small: %zu\n", SegmentSize(g_sysInfoShmId));
        shmdt(address);
        return -1;
    }
    g_pSysConfig = static_cast<SysInfo *>(address);
    fprintf(stderr, "pSysConfig:%p\n", address);
    return 0;
}

int SysInfoDetach() {
    if (g_pSysConfig == nullptr) return 0;
    int ret = shmdt(g_pSysConfig);
    g_pSysConfig = nullptr;
    return ret;
}

const SysInfo *GetSysInfo() { return g_pSysConfig; }

SysInfo *GetSysInfoForWriting() { return g_pSysConfig; }
