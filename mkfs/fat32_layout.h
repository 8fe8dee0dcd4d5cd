// Where everything lies on the formatted card: cluster size by device size,
// the FAT size, the root directory and the start cluster of every file of
// the card file set. Pure arithmetic, no I/O.
#pragma once

#include <cstdint>

inline constexpr uint32_t kFat32ReservedSectors = 6;  // boot, FSInfo, empty, then their backups
inline constexpr uint32_t kFat32FatCount = 2;
inline constexpr uint8_t kFat32Media = 0xF8;
inline constexpr uint32_t kFat32RootCluster = 2;
inline constexpr uint32_t kFat32FsInfoSector = 1;
inline constexpr uint32_t kFat32BackupBootSector = 3;
inline constexpr uint32_t kFat32MaxSectorsPerCluster = 128;
inline constexpr uint32_t kFat32MaxClusters = 0x0FFFFFF1;  // a valid layout has fewer
inline constexpr uint16_t kDefaultHeads = 255;
inline constexpr uint16_t kDefaultSectorsPerTrack = 63;
inline constexpr uint32_t kDefaultSectorSize = 512;
inline constexpr uint32_t kDirEntrySize = 32;
inline constexpr uint32_t kDirBytesPerFile = 2 * kDirEntrySize;  // long-name entry + 8.3 entry

struct Fat32Layout {
    uint64_t deviceBytes;           // size of the device or image
    uint32_t bytesPerSector;        // 512 unless the device reports more
    uint32_t totalSectors;          // deviceBytes / bytesPerSector
    uint16_t heads;                 // geometry written to the boot sector
    uint16_t sectorsPerTrack;       // geometry written to the boot sector
    uint32_t sectorsPerCluster;     // from the size table, doubled if needed
    uint32_t fatSectors;            // sectors per FAT
    uint32_t clusterCount;          // data clusters
    uint32_t pictureFiles;          // "hi%06d.pic" files, first in the directory
    uint32_t mediaFiles;            // "hi%06d.mp4" files, after the pictures
    uint32_t rootDirClusters;       // clusters of the root directory
    uint32_t clustersPerLargeFile;  // 256 MiB
    uint32_t clustersPerSmallFile;  // 64 MiB

    uint32_t ClusterBytes() const { return sectorsPerCluster * bytesPerSector; }
    uint32_t FatEntriesPerSector() const { return bytesPerSector / 4; }
    uint32_t DataStartSector() const { return kFat32ReservedSectors + kFat32FatCount * fatSectors; }
    uint32_t FileCount() const;
};

// Sectors per cluster for a device of the given size (512-byte sectors).
uint32_t Fat32SectorsPerCluster(uint64_t deviceBytes);

// Sizes the FAT for layout->totalSectors, starting from
// layout->sectorsPerCluster and doubling it when the clusters do not fit.
// Sets fatSectors and clusterCount; -1 when no cluster size fits.
int Fat32SizeFat(Fat32Layout *layout);

// Root directory and per-file cluster counts for the file counts set.
void Fat32SizeFiles(Fat32Layout *layout);

// First cluster and length in clusters of the file at a directory position.
uint32_t Fat32FileFirstCluster(const Fat32Layout &layout, uint32_t position);
uint32_t Fat32FileClusters(const Fat32Layout &layout, uint32_t position);

// One past the last allocated cluster (root directory and every file).
uint32_t Fat32EndCluster(const Fat32Layout &layout);

// Byte offset of a cluster on the device.
uint64_t Fat32ClusterOffset(const Fat32Layout &layout, uint32_t cluster);
