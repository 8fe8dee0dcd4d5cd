// The card's file set as both the formatter and the recorder see it: the
// file names, their sizes, where the index keeps its per-file room, and
// from that the most media files a card may hold. The formatter lays these
// files out; the index code reads and writes inside them. Nothing here
// depends on either.
#pragma once

#include <algorithm>
#include <cstdint>

// Files of the set, in the order the formatter lays them out: pictures,
// media, then the four fixed files.
inline constexpr const char kPictureFileNameFormat[] = "hi%06d.pic";
inline constexpr const char kMediaFileNameFormat[] = "hi%06d.mp4";
inline constexpr const char kEventFileName[] = "event000.bin";
inline constexpr const char kKeyFrameFileName[] = "keyframe.bin";
inline constexpr const char kIndexFileName[] = "index000.bin";
inline constexpr const char kBackupIndexFileName[] = "index001.bin";
inline constexpr uint32_t kCardFixedFiles = 4;  // event, key-frame, two index files

// Sizes. Pictures, media, the event file and the key-frame file are large
// files; only the two index files are small.
inline constexpr uint32_t kCardLargeFileSize = 0x10000000;  // 256 MiB
inline constexpr uint32_t kCardSmallFileSize = 0x4000000;   // 64 MiB
inline constexpr uint32_t kMediaFileSize = kCardLargeFileSize;
inline constexpr uint32_t kMediaFileSizeShift = 28;  // kMediaFileSize == 1 << 28
inline constexpr uint32_t kMediaFileSizeMiB = kMediaFileSize >> 20;
inline constexpr uint32_t kEventFileSize = kCardLargeFileSize;
inline constexpr uint32_t kKeyFrameFileSize = kCardLargeFileSize;
inline constexpr uint32_t kIndexFileSize = kCardSmallFileSize;
inline constexpr uint64_t kCardHeldBackBytes = 1ull << 30;  // not split between media and pictures
static_assert(kMediaFileSize == 1u << kMediaFileSizeShift);

// Where index000.bin keeps one 48-byte record per media file and one
// section block per media file, and where event000.bin keeps one event
// list per media file.
inline constexpr uint32_t kFileInfoHeadOffset = 0x400;
inline constexpr uint32_t kFileInfoHeadSize = 48;
inline constexpr uint32_t kSectionBlockOffset = 0x20000;
inline constexpr uint32_t kSectionBlockSize = 0x4000;
inline constexpr uint32_t kEventListOffset = 0x100000;
inline constexpr uint32_t kEventListSize = 0x20000;

// Media files each part of the index has room for.
inline constexpr uint32_t kMaxIndexFileRecords =
    (kSectionBlockOffset - kFileInfoHeadOffset) / kFileInfoHeadSize;
inline constexpr uint32_t kMaxIndexSectionBlocks = (kIndexFileSize - kSectionBlockOffset) / kSectionBlockSize;
inline constexpr uint32_t kMaxEventLists = (kEventFileSize - kEventListOffset) / kEventListSize;
static_assert(kMaxIndexFileRecords == 2709 && kMaxIndexSectionBlocks == 4088 && kMaxEventLists == 2040);

// The most media files a card holds: beyond the event lists' room the alarm
// writer would write past the end of event000.bin, so the formatter caps the
// media count here and leaves the space above unallocated.
inline constexpr uint32_t kCardMaxMediaFiles =
    std::min({kMaxIndexFileRecords, kMaxIndexSectionBlocks, kMaxEventLists});
