// The pattern shared by the small shared-memory blocks (alarm, watchdog,
// SPS/PPS): a private image of the whole block per process, written to and
// read from the segment with an attach-copy-detach cycle.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

struct ShmBlock {
    key_t Key;           // segment key
    size_t SegmentSize;  // size requested
    size_t ImageSize;    // bytes ever read or written
    uint8_t *Image;      // private image
    int InitFlag;        // init flag
    int gShmId;          // segment identifier, -1 when not open
};

// Clears the image and opens the segment; sets the init flag on success.
// Returns 0, or -1 when the segment could not be opened.
int ShmBlockOpen(ShmBlock *block);

// Logs "has already init!" for caller and returns true when initialised.
bool ShmBlockAlreadyInit(const ShmBlock *block, const char *caller, int line);

// False (with the gShmId message logged for caller) when not open.
bool ShmBlockIdValid(const ShmBlock *block, const char *caller, int line);

// Copies image bytes [offset, offset + length) into the segment.
void ShmBlockWriteImage(const ShmBlock *block, size_t offset, size_t length);

// Copies the whole segment image into buffer.
void ShmBlockReadImage(const ShmBlock *block, void *buffer);

// Deinitialisation: flag 0, identifier -1, image cleared and written through
// the closed identifier (never called while the process runs normally).
void ShmBlockDeinit(ShmBlock *block);

// Test hook: forgets the block (flag 0, identifier -1, image cleared)
// without touching the segment.
void ShmBlockResetForTest(ShmBlock *block);
