// Reading a FAT32 card without mounting it: the boot sector decoded into a
// volume description and checked field by field, the files of the root
// directory with their first cluster and size, and the check that a file
// is one unbroken run of clusters (this formatter lays every file out that
// way and the recorder never allocates, so a file's bytes are found by
// arithmetic alone). Read-only: every access is a seek and a read through
// the POSIX table of the file I/O layer on a descriptor opened O_RDONLY.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

inline constexpr uint32_t kFat32BootSectorSize = 512;

struct Fat32Volume {
    uint32_t bytesPerSector;     // 512 .. 4096, a power of two
    uint32_t sectorsPerCluster;  // a power of two up to 128
    uint32_t reservedSectors;    // in front of the first FAT
    uint32_t fatCount;           // copies of the FAT (1 or 2)
    uint32_t fatSectors;         // sectors per FAT
    uint32_t totalSectors;       // sectors of the volume
    uint32_t rootCluster;        // first cluster of the root directory
    uint32_t clusterCount;       // data clusters, numbered 2 .. clusterCount + 1

    uint32_t ClusterBytes() const { return sectorsPerCluster * bytesPerSector; }
    uint64_t FatOffset() const { return uint64_t{reservedSectors} * bytesPerSector; }
    uint64_t DataOffset() const {
        return (uint64_t{reservedSectors} + uint64_t{fatCount} * fatSectors) * bytesPerSector;
    }
    uint64_t ClusterOffset(uint32_t cluster) const {
        return DataOffset() + uint64_t{cluster - 2} * ClusterBytes();
    }
};

// A file of the root directory.
struct Fat32File {
    std::string name;       // the 8.3 name in lower case: "index000.bin"
    uint32_t firstCluster;  // 0 for an empty file
    uint32_t size;          // bytes
};

// Decodes the boot sector of a device of deviceBytes and checks that it
// describes a FAT32 volume that fits the device. 0, or -1 with the problem
// in *why.
int Fat32DecodeVolume(const uint8_t sector[kFat32BootSectorSize], uint64_t deviceBytes, Fat32Volume *volume,
                      std::string *why);

// Reads and decodes the boot sector of the device open at fd.
int Fat32ReadVolume(int fd, Fat32Volume *volume, std::string *why);

// The files of the root directory, following its cluster chain; long-name
// entries, deleted entries, the volume label and directories are skipped.
int Fat32ReadRootDirectory(int fd, const Fat32Volume &volume, std::vector<Fat32File> *files,
                           std::string *why);

// 0 when the file's clusters are one run from its first cluster, each FAT
// entry naming the next and the last one ending the chain; -1 with why.
int Fat32CheckContiguous(int fd, const Fat32Volume &volume, const Fat32File &file, std::string *why);
