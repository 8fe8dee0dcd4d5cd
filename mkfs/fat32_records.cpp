#include "mkfs/fat32_records.h"

#include <cstring>

namespace {

constexpr uint8_t kJump[3] = {0xEB, 0x58, 0x90};
constexpr char kOemName[8] = "mkdosfs";
constexpr char kFsType[8] = {'F', 'A', 'T', '3', '2', ' ', ' ', ' '};
// Prints the message after it and waits for a key, then reboots.
constexpr uint8_t kBootStub[] = {0x0E, 0x1F, 0xBE, 0x77, 0x7C, 0xAC, 0x22, 0xC0, 0x74, 0x0B,
                                 0x56, 0xB4, 0x0E, 0xBB, 0x07, 0x00, 0xCD, 0x10, 0x5E, 0xEB,
                                 0xF0, 0x32, 0xE4, 0xCD, 0x16, 0xCD, 0x19, 0xEB, 0xFE};
constexpr char kBootMessage[] = "This is not a bootable disk\r\n";
constexpr uint32_t kMaxTotalSectors16 = 65535;
constexpr int kDosEpochYear = 1980;
constexpr int kDosLastYear = 2107;
// A directory time holds 1980-01-01 00:00:00 to 2107-12-31 23:59:58; a clock
// outside that (never set, say) gets the nearest end rather than a wrapped date.
constexpr Fat32Stamp kDosFirstStamp = {0, 1 << 5 | 1};
constexpr Fat32Stamp kDosLastStamp = {23 << 11 | 59 << 5 | 29,
                                      (kDosLastYear - kDosEpochYear) << 9 | 12 << 5 | 31};
constexpr uint32_t kLongNameChars = 13;
constexpr uint16_t kLongNamePad = 0xFFFF;
// The stub loads its message from 0x7C77: right behind the stub's 29 bytes.
static_assert(offsetof(Fat32BootSector, bootCode) + sizeof kBootStub == 0x77);

uint16_t LongNameChar(const char *name, size_t length, uint32_t index) {
    if (index < length) return static_cast<uint8_t>(name[index]);
    return index == length ? 0 : kLongNamePad;
}

bool IsPowerOfTwo(uint32_t value) { return value != 0 && (value & (value - 1)) == 0; }

}  // namespace

Fat32Stamp Fat32StampOf(time_t when) {
    struct tm local {};
    if (localtime_r(&when, &local) == nullptr || local.tm_year + 1900 < kDosEpochYear) return kDosFirstStamp;
    if (local.tm_year + 1900 > kDosLastYear) return kDosLastStamp;
    Fat32Stamp stamp;
    stamp.time = static_cast<uint16_t>(local.tm_hour << 11 | local.tm_min << 5 | local.tm_sec / 2);
    stamp.date = static_cast<uint16_t>((local.tm_year + 1900 - kDosEpochYear) << 9 | (local.tm_mon + 1) << 5 |
                                       local.tm_mday);
    return stamp;
}

void Fat32BuildBootSector(const Fat32Layout &layout, uint32_t volumeId, Fat32BootSector *boot) {
    memset(boot, 0, sizeof *boot);
    memcpy(boot->jump, kJump, sizeof kJump);
    memcpy(boot->oemName, kOemName, sizeof kOemName);
    boot->bytesPerSector = static_cast<uint16_t>(layout.bytesPerSector);
    boot->sectorsPerCluster = static_cast<uint8_t>(layout.sectorsPerCluster);
    boot->reservedSectors = kFat32ReservedSectors;
    boot->fatCount = kFat32FatCount;
    boot->totalSectors16 =
        layout.totalSectors <= kMaxTotalSectors16 ? static_cast<uint16_t>(layout.totalSectors) : 0;
    boot->media = kFat32Media;
    boot->sectorsPerTrack = layout.sectorsPerTrack;
    boot->heads = layout.heads;
    boot->totalSectors32 = layout.totalSectors;
    boot->fatSectors32 = layout.fatSectors;
    boot->rootCluster = kFat32RootCluster;
    boot->fsInfoSector = kFat32FsInfoSector;
    boot->backupBootSector = kFat32BackupBootSector;
    boot->bootSignature = kExtendedBootSignature;
    boot->volumeId = volumeId;
    memcpy(boot->fsType, kFsType, sizeof kFsType);
    memcpy(boot->bootCode, kBootStub, sizeof kBootStub);
    memcpy(boot->bootCode + sizeof kBootStub, kBootMessage, sizeof kBootMessage - 1);
    boot->signature = kBootSignature;
}

void Fat32BuildFsInfo(const Fat32Layout &layout, Fat32FsInfo *info) {
    memset(info, 0, sizeof *info);
    info->leadSignature = kFsInfoLeadSignature;
    info->structSignature = kFsInfoStructSignature;
    // Counted as if the card were empty although the files fill it: the
    // recorder never allocates, and this is what cards carry in the field.
    info->freeClusters = layout.clusterCount - 1;
    info->nextFreeCluster = kFat32RootCluster;
    info->signature = kBootSignature;
}

uint8_t Fat32ShortNameChecksum(const char *shortName) {
    uint8_t sum = 0;
    for (int i = 0; i < 11; ++i) {
        sum = static_cast<uint8_t>((sum >> 1) + (sum << 7) + static_cast<uint8_t>(shortName[i]));
    }
    return sum;
}

void Fat32BuildDirEntries(const char *shortName, const char *longName, uint32_t firstCluster, uint32_t size,
                          const Fat32Stamp &stamp, Fat32LongNameEntry *longEntry,
                          Fat32ShortEntry *shortEntry) {
    memset(longEntry, 0, sizeof *longEntry);
    longEntry->sequence = kLongNameLastFirst;
    longEntry->attributes = kDirAttrLongName;
    longEntry->checksum = Fat32ShortNameChecksum(shortName);
    size_t length = strlen(longName);
    uint16_t chars[kLongNameChars];
    for (uint32_t i = 0; i < kLongNameChars; ++i) chars[i] = LongNameChar(longName, length, i);
    memcpy(longEntry->name1, chars, sizeof longEntry->name1);
    memcpy(longEntry->name2, chars + 5, sizeof longEntry->name2);
    memcpy(longEntry->name3, chars + 11, sizeof longEntry->name3);

    memset(shortEntry, 0, sizeof *shortEntry);
    memcpy(shortEntry->name, shortName, sizeof shortEntry->name);
    shortEntry->attributes = kDirAttrArchive;
    shortEntry->createTime = stamp.time;
    shortEntry->createDate = stamp.date;
    shortEntry->accessDate = stamp.date;
    shortEntry->firstClusterHigh = static_cast<uint16_t>(firstCluster >> 16);
    shortEntry->writeTime = stamp.time;
    shortEntry->writeDate = stamp.date;
    shortEntry->firstClusterLow = static_cast<uint16_t>(firstCluster & 0xFFFF);
    shortEntry->fileSize = size;
}

int Fat32DecodeBootSector(const uint8_t sector[512], Fat32Layout *layout, const char **why) {
    Fat32BootSector boot;
    memcpy(&boot, sector, sizeof boot);
    const char *problem = nullptr;
    if (boot.signature != kBootSignature) {
        problem = "no boot sector signature";
    } else if (!IsPowerOfTwo(boot.bytesPerSector) || boot.bytesPerSector < kDefaultSectorSize) {
        problem = "bad sector size";
    } else if (!IsPowerOfTwo(boot.sectorsPerCluster) || boot.sectorsPerCluster > kFat32MaxSectorsPerCluster) {
        problem = "bad cluster size";
    } else if (boot.fatSectors16 != 0 || boot.fatSectors32 == 0 || boot.rootEntries != 0) {
        problem = "not a FAT32 boot sector";
    } else if (boot.reservedSectors != kFat32ReservedSectors || boot.fatCount != kFat32FatCount ||
               boot.rootCluster != kFat32RootCluster) {
        problem = "not a card layout of this formatter";
    } else if (boot.totalSectors32 <= kFat32ReservedSectors + uint64_t{kFat32FatCount} * boot.fatSectors32) {
        problem = "FATs larger than the device";
    }
    if (why != nullptr) *why = problem;
    if (problem != nullptr) return -1;
    layout->bytesPerSector = boot.bytesPerSector;
    layout->totalSectors = boot.totalSectors32;
    layout->deviceBytes = static_cast<uint64_t>(boot.totalSectors32) * boot.bytesPerSector;
    layout->heads = boot.heads;
    layout->sectorsPerTrack = boot.sectorsPerTrack;
    layout->sectorsPerCluster = boot.sectorsPerCluster;
    layout->fatSectors = boot.fatSectors32;
    layout->clusterCount = (layout->totalSectors - layout->DataStartSector()) / layout->sectorsPerCluster;
    return 0;
}
