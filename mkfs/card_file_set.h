// The recorder's card file set: picture files, media files, the alarm-event
// file, the key-frame file and the two index files, in this order, with
// their long and 8.3 names and sizes. The formatter lays them out on the
// card; prealloc creates them in a plain directory.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/card_layout.h"

// What a card of a given size holds, as reported to the caller.
struct MkfsCapacityInfo {
    uint64_t m_u64TotalSize;       // device bytes >> 20 (MiB)
    uint64_t m_u64VideoSpace;      // MiB given to media files
    uint32_t m_u32VideoFileNum;    // media files "hi%06d.mp4"
    uint64_t m_u64PictureSpace;    // MiB given to picture files
    uint32_t m_u32PictureFileNum;  // picture files "hi%06d.pic"
};

struct CardFile {
    char m_szShortName[12];  // 8.3 name, 11 characters without the dot
    char m_szLongName[16];   // "hi000000.mp4", "index000.bin", ...
    uint32_t m_u32Size;      // bytes
    bool m_bLarge;           // a 256 MiB file
};

// The file at position (0-based) of the set with the given counts; -1 past
// the last one.
int CardFileAt(uint32_t position, uint32_t pictureFiles, uint32_t mediaFiles, CardFile *file);

inline uint32_t CardFileCount(uint32_t pictureFiles, uint32_t mediaFiles) {
    return pictureFiles + mediaFiles + kCardFixedFiles;
}

// Splits a device of deviceBytes between media (percent) and pictures
// (100 - percent), both in whole 256 MiB files after the first GiB, and
// caps the media count at kCardMaxMediaFiles. Returns 1 when it capped,
// 0 when not, -1 for a percentage outside 0..100.
int CardSplitCapacity(uint64_t deviceBytes, int percent, MkfsCapacityInfo *capacity);

// The capacity record of a file set made of the given counts (prealloc):
// total and shares are the sizes of the files themselves.
void CardDescribeFileSet(uint32_t pictureFiles, uint32_t mediaFiles, MkfsCapacityInfo *capacity);
