// Locks of the configuration channel: the process-local request mutex
// (allocated on the heap, handed around as a plain handle) and the
// configuration semaphore set, a cross-process lock of one semaphore.
#pragma once

#include <pthread.h>
#include <sys/types.h>

using SemHandl_t = pthread_mutex_t *;

inline constexpr key_t kConfigSemKey = 12930005;  // 0xC54BD5
inline constexpr int kConfigSemMode = 0666;

// Heap mutex: create (null when out of memory or the init fails), lock,
// unlock, destroy (lock, unlock, destroy, free). 0 or -1.
SemHandl_t MakeSem();
int SemWait(SemHandl_t hndlSem);
int SemRelease(SemHandl_t hndlSem);
int DestroySem(SemHandl_t hndlSem);

// The configuration semaphore set of this process (identifier -1 until
// created). Each operation returns 0 or -1.
int ConfigSemCreate(key_t key);
int ConfigSemSetValue(int value);
int ConfigSemWait();
int ConfigSemPost();
int ConfigSemRemove();
int ConfigSemId();
