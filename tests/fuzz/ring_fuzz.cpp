// libFuzzer target; the entry is shared with the corpus replay test.
#include <sched.h>

#include "fuzz/ring_entry.h"

// The reader works on System V objects: a namespace of its own keeps them
// apart from every other process.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    unshare(CLONE_NEWIPC);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz::FuzzRingReader(data, size);
}
