// Shared-memory helpers of the configuration channel: the two-step
// create-or-look-up of a segment and the attach-copy-detach access to the
// request transfer segment.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

inline constexpr key_t kSysTransferKey = 14073;           // 0x36F9, also the request queue
inline constexpr uint32_t kSysTransferSize = 0x24000;     // 147456 bytes
inline constexpr uint32_t kSysTransferAreaSize = 0x3000;  // 12288 bytes per process
inline constexpr int kSysTransferShmMode = 0660;

// Creates the segment (key, size, mode); when that fails (it exists with
// another size, for instance) looks the existing one up with size 0 and no
// flags. Returns the identifier or a negative value.
int ShareMemOpen(key_t key, size_t size, int mode);

// Creates or looks up the transfer segment and remembers its identifier.
// Returns the identifier or a negative value.
int ShareMemInit(key_t key);

// Copy into / out of the transfer segment at a byte offset: attach, copy,
// detach. 0, or -1 when the segment cannot be attached or the range does not
// lie inside it.
int ShareMemWrite(uint32_t offset, const void *buf, size_t length);
int ShareMemRead(uint32_t offset, void *buf, size_t length);

// Same as the above on an explicit segment identifier (the server side).
int ShareMemWriteId(int shmId, uint32_t offset, const void *buf, size_t length);
int ShareMemReadId(int shmId, uint32_t offset, void *buf, size_t length);
