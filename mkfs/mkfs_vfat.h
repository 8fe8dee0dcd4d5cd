// The card formatter: a FAT32 file system whose whole data area is taken by
// the recorder's pre-allocated, contiguous files (see card_file_set.h). Only
// the boot sectors, the FATs and the root directory are written; the file
// clusters keep whatever the card held.
#pragma once

#include <cstdint>
#include <ctime>

#include "mkfs/card_file_set.h"
#include "mkfs/fat32_layout.h"

// Formats a block device or a regular image file. percent (0..100) is the
// share of the space for media files; the rest goes to picture files.
// Returns 0, or -1 with a message on standard error.
int mkfs_vfat(const char *device, MkfsCapacityInfo *capacity, int percent);

// Called after every block written: bytes written so far and in total.
using MkfsProgress = void (*)(uint64_t done, uint64_t total, void *user);

struct MkfsOptions {
    MkfsProgress progress;  // may be null
    void *user;             // handed to progress
    time_t now;             // volume id and directory times; 0: the clock
};

// mkfs_vfat with progress reporting; the layout written is returned through
// layout (may be null) so callers can reach the files without a mount.
int MkfsVfatFormat(const char *device, MkfsCapacityInfo *capacity, int percent, const MkfsOptions &options,
                   Fat32Layout *layout);
