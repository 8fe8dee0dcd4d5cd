#include "sysconfig/sem_util.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cstdio>
#include <new>

namespace {

int g_semId = -1;

// The caller defines semun for semctl.
union semun {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
};

int SemOperate(short delta) {
    struct sembuf op {};
    op.sem_num = 0;
    op.sem_op = delta;
    op.sem_flg = SEM_UNDO;
    return semop(g_semId, &op, 1);
}

}  // namespace

SemHandl_t MakeSem() {
    auto *mutex = new (std::nothrow) pthread_mutex_t;
    if (mutex == nullptr) {
        fprintf(stderr, "Error: Not enough memory!!\n");
        return nullptr;
    }
    if (pthread_mutex_init(mutex, nullptr) != 0) {
        fprintf(stderr, "Error: Sem_Creat init faill!!\n");
        delete mutex;
        return nullptr;
    }
    return mutex;
}

int SemWait(SemHandl_t hndlSem) {
    if (hndlSem == nullptr) {
        fprintf(stderr, "Error: SemWait: Invalid Semaphore handler\n");
        return -1;
    }
    return pthread_mutex_lock(hndlSem) == 0 ? 0 : -1;
}

int SemRelease(SemHandl_t hndlSem) {
    if (hndlSem == nullptr) {
        fprintf(stderr, "Error: SemRelease: Invalid Semaphore handler\n");
        return -1;
    }
    return pthread_mutex_unlock(hndlSem) == 0 ? 0 : -1;
}

int DestroySem(SemHandl_t hndlSem) {
    if (hndlSem == nullptr) {
        fprintf(stderr, "Error: DestroySem: Invalid Semaphore handler\n");
        return -1;
    }
    // Taking the lock once waits for a request still under way.
    pthread_mutex_lock(hndlSem);
    pthread_mutex_unlock(hndlSem);
    int ret = 0;
    if (pthread_mutex_destroy(hndlSem) != 0) {
        fprintf(stderr, "Error: Sem_kill faill!!\n");
        ret = -1;
    }
    delete hndlSem;
    return ret;
}

int ConfigSemCreate(key_t key) {
    g_semId = semget(key, 1, IPC_CREAT | kConfigSemMode);
    fprintf(stderr, "Semaphore id:%d\n", g_semId);
    return g_semId < 0 ? -1 : 0;
}

int ConfigSemSetValue(int value) {
    union semun arg {};
    arg.val = value;
    fprintf(stderr, "Semaphore Set Value:%d\n", value);
    if (semctl(g_semId, 0, SETVAL, arg) < 0) {
        perror("Sem init");
        return -1;
    }
    return 0;
}

int ConfigSemWait() {
    fprintf(stderr, "Semaphore Wait\n");
    if (SemOperate(-1) < 0) {
        perror("Sem Wait operation");
        return -1;
    }
    return 0;
}

int ConfigSemPost() {
    fprintf(stderr, "Semaphore Post\n");
    if (SemOperate(1) < 0) {
        perror("Sem Post operation");
        return -1;
    }
    return 0;
}

int ConfigSemRemove() {
    fprintf(stderr, "Kill Semaphore id:%d\n", g_semId);
    if (semctl(g_semId, 0, IPC_RMID) < 0) {
        perror("Sem kill");
        return -1;
    }
    g_semId = -1;
    return 0;
}

int ConfigSemId() { return g_semId; }
