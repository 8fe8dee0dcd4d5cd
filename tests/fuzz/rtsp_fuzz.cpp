// libFuzzer target; the entry is shared with the corpus replay test.
#include "fuzz/rtsp_entry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz::FuzzRtspRequests(data, size);
}
