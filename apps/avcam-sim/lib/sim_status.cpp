#include "lib/sim_status.h"

#include <signal.h>
#include <sys/shm.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "ipc/sysv_ipc.h"

int SimStatusCreate(SimStatus **status) {
    int shmId = IpcShareMemInit(kSimStatusKey, sizeof(SimStatus));
    if (shmId < 0) return -1;
    void *base = shmat(shmId, nullptr, 0);
    if (base == reinterpret_cast<void *>(-1)) return -1;
    *status = static_cast<SimStatus *>(base);
    memset(*status, 0, sizeof(SimStatus));
    return shmId;
}

SimStatus *SimStatusAttach() {
    int shmId = shmget(kSimStatusKey, 0, 0);
    if (shmId < 0) return nullptr;
    void *base = shmat(shmId, nullptr, 0);
    if (base == reinterpret_cast<void *>(-1)) return nullptr;
    auto *status = static_cast<SimStatus *>(base);
    bool alive = SimLoad(status->Magic) == kSimStatusMagic && (kill(status->Pid, 0) == 0 || errno == EPERM);
    if (!alive) {
        shmdt(base);
        return nullptr;
    }
    return status;
}

void SimStatusDetach(SimStatus *status) {
    if (status != nullptr) shmdt(status);
}

uint32_t SimLoad(const uint32_t &word) {
    return std::atomic_ref<uint32_t>(const_cast<uint32_t &>(word)).load(std::memory_order_acquire);
}

void SimStore(uint32_t &word, uint32_t value) {
    std::atomic_ref<uint32_t>(word).store(value, std::memory_order_release);
}

void SimAdd(uint32_t &word, uint32_t delta) {
    std::atomic_ref<uint32_t>(word).fetch_add(delta, std::memory_order_acq_rel);
}
