// The on-disk FAT32 records the formatter writes: the boot sector, the
// FSInfo sector and the long-name / 8.3 directory entry pair of each file.
// Plain little-endian structs, built from a layout and decoded back for
// checks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "common/byte_order.h"
#include "mkfs/fat32_layout.h"

inline constexpr uint16_t kBootSignature = 0xAA55;  // bytes 55 AA at 510
inline constexpr uint8_t kExtendedBootSignature = 0x29;
inline constexpr uint32_t kFsInfoLeadSignature = 0x41615252;    // "RRaA"
inline constexpr uint32_t kFsInfoStructSignature = 0x61417272;  // "rrAa"
inline constexpr uint32_t kFat32EndOfChain = 0x0FFFFFFF;
inline constexpr uint32_t kFat32ShortRootEnd = 0x0FFFFFF8;  // ends a one-cluster root directory
inline constexpr uint32_t kFat32Entry1 = 0xFFFFFFFF;
inline constexpr uint8_t kDirAttrLongName = 0x0F;
inline constexpr uint8_t kDirAttrArchive = 0x20;
inline constexpr uint8_t kLongNameLastFirst = 0x41;  // sequence 1, last of the name

struct __attribute__((packed)) Fat32BootSector {
    uint8_t jump[3];            // EB 58 90
    char oemName[8];            // "mkdosfs\0"
    uint16_t bytesPerSector;    // 512 or the device's sector size
    uint8_t sectorsPerCluster;  // from the size table
    uint16_t reservedSectors;   // 6
    uint8_t fatCount;           // 2
    uint16_t rootEntries;       // 0 on FAT32
    uint16_t totalSectors16;    // only for totals up to 65535
    uint8_t media;              // 0xF8
    uint16_t fatSectors16;      // 0 on FAT32
    uint16_t sectorsPerTrack;   // geometry
    uint16_t heads;             // geometry
    uint32_t hiddenSectors;     // 0
    uint32_t totalSectors32;    // total sectors
    uint32_t fatSectors32;      // sectors per FAT
    uint16_t flags;             // 0: both FATs mirrored
    uint16_t version;           // 0
    uint32_t rootCluster;       // 2
    uint16_t fsInfoSector;      // 1
    uint16_t backupBootSector;  // 3
    uint8_t reserved[12];       // zero
    uint8_t driveNumber;        // left 0
    uint8_t reserved1;          // zero
    uint8_t bootSignature;      // 0x29
    uint32_t volumeId;          // formatting time in seconds
    char volumeLabel[11];       // 11 zero bytes
    char fsType[8];             // "FAT32   "
    uint8_t bootCode[420];      // stub and its message
    uint16_t signature;         // 0xAA55
};
static_assert(sizeof(Fat32BootSector) == 512);
static_assert(offsetof(Fat32BootSector, bytesPerSector) == 11);
static_assert(offsetof(Fat32BootSector, totalSectors16) == 19);
static_assert(offsetof(Fat32BootSector, sectorsPerTrack) == 24);
static_assert(offsetof(Fat32BootSector, totalSectors32) == 32);
static_assert(offsetof(Fat32BootSector, fatSectors32) == 36);
static_assert(offsetof(Fat32BootSector, rootCluster) == 44);
static_assert(offsetof(Fat32BootSector, backupBootSector) == 50);
static_assert(offsetof(Fat32BootSector, bootSignature) == 66);
static_assert(offsetof(Fat32BootSector, volumeId) == 67);
static_assert(offsetof(Fat32BootSector, fsType) == 82);
static_assert(offsetof(Fat32BootSector, bootCode) == 90);
static_assert(offsetof(Fat32BootSector, signature) == 510);

struct __attribute__((packed)) Fat32FsInfo {
    uint32_t leadSignature;    // 0x41615252
    uint8_t reserved[480];     // zero
    uint32_t structSignature;  // 0x61417272
    uint32_t freeClusters;     // written as if the card were empty
    uint32_t nextFreeCluster;  // 2
    uint8_t reserved2[14];     // zero
    uint16_t signature;        // 0xAA55
};
static_assert(sizeof(Fat32FsInfo) == 512);
static_assert(offsetof(Fat32FsInfo, structSignature) == 484);
static_assert(offsetof(Fat32FsInfo, freeClusters) == 488);
static_assert(offsetof(Fat32FsInfo, nextFreeCluster) == 492);

struct __attribute__((packed)) Fat32LongNameEntry {
    uint8_t sequence;       // 0x41
    uint16_t name1[5];      // characters 1..5, UTF-16LE
    uint8_t attributes;     // 0x0F
    uint8_t type;           // 0
    uint8_t checksum;       // over the 8.3 name
    uint16_t name2[6];      // characters 6..11
    uint16_t firstCluster;  // 0
    uint16_t name3[2];      // characters 12..13
};
static_assert(sizeof(Fat32LongNameEntry) == kDirEntrySize);
static_assert(offsetof(Fat32LongNameEntry, attributes) == 11);
static_assert(offsetof(Fat32LongNameEntry, checksum) == 13);
static_assert(offsetof(Fat32LongNameEntry, name2) == 14);
static_assert(offsetof(Fat32LongNameEntry, name3) == 28);

struct __attribute__((packed)) Fat32ShortEntry {
    char name[11];              // "HI000000MP4"
    uint8_t attributes;         // 0x20
    uint8_t caseFlags;          // 0
    uint8_t createTimeTenths;   // 0
    uint16_t createTime;        // local time of formatting
    uint16_t createDate;        // local date of formatting
    uint16_t accessDate;        // local date of formatting
    uint16_t firstClusterHigh;  // high 16 bits of the first cluster
    uint16_t writeTime;         // local time of formatting
    uint16_t writeDate;         // local date of formatting
    uint16_t firstClusterLow;   // low 16 bits of the first cluster
    uint32_t fileSize;          // bytes
};
static_assert(sizeof(Fat32ShortEntry) == kDirEntrySize);
static_assert(offsetof(Fat32ShortEntry, createTime) == 14);
static_assert(offsetof(Fat32ShortEntry, firstClusterHigh) == 20);
static_assert(offsetof(Fat32ShortEntry, writeTime) == 22);
static_assert(offsetof(Fat32ShortEntry, firstClusterLow) == 26);
static_assert(offsetof(Fat32ShortEntry, fileSize) == 28);

// DOS time and date of a local time.
struct Fat32Stamp {
    uint16_t time;  // hours << 11 | minutes << 5 | seconds / 2
    uint16_t date;  // (year - 1980) << 9 | month << 5 | day
};
Fat32Stamp Fat32StampOf(time_t when);

void Fat32BuildBootSector(const Fat32Layout &layout, uint32_t volumeId, Fat32BootSector *boot);
void Fat32BuildFsInfo(const Fat32Layout &layout, Fat32FsInfo *info);

// Checksum of an 11-byte 8.3 name, as stored in its long-name entries.
uint8_t Fat32ShortNameChecksum(const char *shortName);

// The two directory entries of a file: a 12-character long name (13 slots,
// the rest after the name a terminating zero then 0xFFFF) and its 8.3 twin.
void Fat32BuildDirEntries(const char *shortName, const char *longName, uint32_t firstCluster, uint32_t size,
                          const Fat32Stamp &stamp, Fat32LongNameEntry *longEntry,
                          Fat32ShortEntry *shortEntry);

// Decodes a boot sector read back from a card and checks that it describes
// a FAT32 layout this formatter could have written; fills layout's sector
// fields. Returns 0, or -1 with the reason in *why.
int Fat32DecodeBootSector(const uint8_t sector[512], Fat32Layout *layout, const char **why);
