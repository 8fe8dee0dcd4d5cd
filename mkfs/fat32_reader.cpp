#include "mkfs/fat32_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/file_io.h"
#include "mkfs/fat32_records.h"

namespace {

constexpr uint8_t kJumpShort = 0xEB;  // a boot sector starts with a jump over its fields
constexpr uint8_t kJumpNear = 0xE9;
constexpr uint32_t kMinSectorSize = 512;
constexpr uint32_t kMaxSectorSize = 4096;
constexpr uint32_t kMaxFatCount = 2;
constexpr uint32_t kFatEntryMask = 0x0FFFFFFF;
constexpr uint32_t kFatEndOfChainMin = 0x0FFFFFF8;
constexpr uint32_t kFirstDataCluster = 2;
constexpr uint32_t kFatEntryBytes = 4;
constexpr uint8_t kDirEntryEnd = 0x00;
constexpr uint8_t kDirEntryDeleted = 0xE5;
constexpr uint8_t kDirAttrVolumeId = 0x08;
constexpr uint8_t kDirAttrDirectory = 0x10;
// A FAT directory holds at most 65536 entries.
constexpr uint64_t kMaxDirectoryBytes = 65536ull * kDirEntrySize;
// FAT entries checked per read.
constexpr uint32_t kFatEntriesPerRead = 16384;

bool IsPowerOfTwo(uint32_t value) { return value != 0 && (value & (value - 1)) == 0; }

int Problem(std::string *why, const char *format, ...) __attribute__((format(printf, 2, 3)));
int Problem(std::string *why, const char *format, ...) {
    char text[256];
    va_list list;
    va_start(list, format);
    vsnprintf(text, sizeof text, format, list);
    va_end(list);
    if (why != nullptr) *why = text;
    return -1;
}

// Exactly length bytes at offset of the device.
bool ReadAt(int fd, uint64_t offset, void *buf, size_t length) {
    const FileIoOps &io = PosixFileIo();
    if (io.seek(fd, static_cast<int64_t>(offset), SEEK_SET) != static_cast<int64_t>(offset)) return false;
    size_t done = 0;
    while (done < length) {
        ssize_t n = io.read(fd, static_cast<uint8_t *>(buf) + done, length - done);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// The geometry fields: sizes, counts and the FAT32 markers.
int CheckGeometry(const Fat32BootSector &b, std::string *why) {
    if (b.signature != kBootSignature)
        return Problem(why, "no boot sector signature (bytes 510-511 are %02x %02x, not 55 aa)",
                       b.signature & 0xFF, b.signature >> 8);
    if (b.jump[0] != kJumpShort && b.jump[0] != kJumpNear)
        return Problem(why, "no jump instruction in front of the boot sector: a partition table? "
                            "(give the partition, for example /dev/sdb1, not the whole disk)");
    if (!IsPowerOfTwo(b.bytesPerSector) || b.bytesPerSector < kMinSectorSize ||
        b.bytesPerSector > kMaxSectorSize)
        return Problem(why, "logical sector size of %u bytes is not a power of two from 512 to 4096",
                       b.bytesPerSector);
    if (!IsPowerOfTwo(b.sectorsPerCluster) || b.sectorsPerCluster > kFat32MaxSectorsPerCluster)
        return Problem(why, "cluster size of %u sectors is not a power of two up to 128",
                       b.sectorsPerCluster);
    if (b.reservedSectors == 0) return Problem(why, "no reserved sectors in front of the FAT");
    if (b.fatCount == 0 || b.fatCount > kMaxFatCount)
        return Problem(why, "%u FATs: only 1 or 2 are supported", b.fatCount);
    if (b.fatSectors16 != 0 || b.rootEntries != 0)
        return Problem(why, "not FAT32 but FAT12/16 (%u sectors per FAT, %u root directory entries)",
                       b.fatSectors16, b.rootEntries);
    if (b.fatSectors32 == 0) return Problem(why, "not FAT32: no sectors per FAT");
    if (b.totalSectors32 == 0) return Problem(why, "no sector count for the volume");
    return 0;
}

}  // namespace

int Fat32DecodeVolume(const uint8_t sector[kFat32BootSectorSize], uint64_t deviceBytes, Fat32Volume *volume,
                      std::string *why) {
    Fat32BootSector b;
    memcpy(&b, sector, sizeof b);
    if (CheckGeometry(b, why) != 0) return -1;
    Fat32Volume v{};
    v.bytesPerSector = b.bytesPerSector;
    v.sectorsPerCluster = b.sectorsPerCluster;
    v.reservedSectors = b.reservedSectors;
    v.fatCount = b.fatCount;
    v.fatSectors = b.fatSectors32;
    v.totalSectors = b.totalSectors32;
    v.rootCluster = b.rootCluster;
    uint64_t volumeBytes = uint64_t{v.totalSectors} * v.bytesPerSector;
    if (volumeBytes > deviceBytes)
        return Problem(why, "the volume has %llu bytes, the image only %llu (cut short?)",
                       static_cast<unsigned long long>(volumeBytes),
                       static_cast<unsigned long long>(deviceBytes));
    uint64_t dataSector = uint64_t{v.reservedSectors} + uint64_t{v.fatCount} * v.fatSectors;
    if (dataSector >= v.totalSectors)
        return Problem(why, "the FATs end at sector %llu, beyond the volume's %u sectors",
                       static_cast<unsigned long long>(dataSector), v.totalSectors);
    v.clusterCount = static_cast<uint32_t>((v.totalSectors - dataSector) / v.sectorsPerCluster);
    uint64_t fatEntries = uint64_t{v.fatSectors} * v.bytesPerSector / kFatEntryBytes;
    if (v.clusterCount == 0) return Problem(why, "no room for a data cluster");
    if (fatEntries < uint64_t{v.clusterCount} + kFirstDataCluster)
        return Problem(why, "a FAT of %u sectors cannot hold %u clusters", v.fatSectors, v.clusterCount);
    if (v.clusterCount > kFat32MaxClusters)
        return Problem(why, "%u clusters: too many for FAT32", v.clusterCount);
    if (v.rootCluster < kFirstDataCluster || v.rootCluster >= v.clusterCount + kFirstDataCluster)
        return Problem(why, "root directory cluster %u is outside the data area (2 .. %u)", v.rootCluster,
                       v.clusterCount + 1);
    *volume = v;
    return 0;
}

int Fat32ReadVolume(int fd, Fat32Volume *volume, std::string *why) {
    int64_t bytes = PosixFileIo().seek(fd, 0, SEEK_END);
    uint8_t sector[kFat32BootSectorSize];
    if (bytes < static_cast<int64_t>(sizeof sector) || !ReadAt(fd, 0, sector, sizeof sector))
        return Problem(why, "too short for a boot sector");
    return Fat32DecodeVolume(sector, static_cast<uint64_t>(bytes), volume, why);
}

namespace {

// The FAT entry of a cluster (first FAT), masked to its 28 bits.
bool NextCluster(int fd, const Fat32Volume &v, uint32_t cluster, uint32_t *next) {
    uint32_t entry = 0;
    if (!ReadAt(fd, v.FatOffset() + uint64_t{cluster} * kFatEntryBytes, &entry, sizeof entry)) return false;
    *next = entry & kFatEntryMask;
    return true;
}

bool InDataArea(const Fat32Volume &v, uint32_t cluster) {
    return cluster >= kFirstDataCluster && cluster - kFirstDataCluster < v.clusterCount;
}

// "HI000000MP4" -> "hi000000.mp4".
std::string NameOf(const Fat32ShortEntry &e) {
    std::string base(e.name, 8), ext(e.name + 8, 3);
    base.erase(base.find_last_not_of(' ') + 1);
    ext.erase(ext.find_last_not_of(' ') + 1);
    std::string name = ext.empty() ? base : base + "." + ext;
    for (char &c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return name;
}

// Adds the files of one directory cluster; false at the end mark.
bool ListCluster(const std::vector<uint8_t> &cluster, std::vector<Fat32File> *files) {
    for (size_t at = 0; at + kDirEntrySize <= cluster.size(); at += kDirEntrySize) {
        Fat32ShortEntry e;
        memcpy(&e, cluster.data() + at, sizeof e);
        uint8_t first = static_cast<uint8_t>(e.name[0]);
        if (first == kDirEntryEnd) return false;
        if (first == kDirEntryDeleted || e.attributes == kDirAttrLongName ||
            (e.attributes & (kDirAttrVolumeId | kDirAttrDirectory)) != 0)
            continue;
        uint32_t firstCluster = uint32_t{e.firstClusterHigh} << 16 | e.firstClusterLow;
        files->push_back(Fat32File{NameOf(e), firstCluster, e.fileSize});
    }
    return true;
}

}  // namespace

int Fat32ReadRootDirectory(int fd, const Fat32Volume &v, std::vector<Fat32File> *files, std::string *why) {
    files->clear();
    std::vector<uint8_t> cluster(v.ClusterBytes());
    uint64_t read = 0;
    for (uint32_t at = v.rootCluster;; read += cluster.size()) {
        if (!InDataArea(v, at)) return Problem(why, "root directory chain leads to cluster %u", at);
        if (read >= kMaxDirectoryBytes) return Problem(why, "root directory chain does not end");
        if (!ReadAt(fd, v.ClusterOffset(at), cluster.data(), cluster.size()) || !NextCluster(fd, v, at, &at))
            return Problem(why, "cannot read the root directory");
        if (!ListCluster(cluster, files) || at >= kFatEndOfChainMin) return 0;
    }
}

int Fat32CheckContiguous(int fd, const Fat32Volume &v, const Fat32File &file, std::string *why) {
    uint32_t clusters =
        static_cast<uint32_t>((uint64_t{file.size} + v.ClusterBytes() - 1) / v.ClusterBytes());
    if (clusters == 0) return 0;
    const char *name = file.name.c_str();
    if (!InDataArea(v, file.firstCluster) ||
        clusters > v.clusterCount - (file.firstCluster - kFirstDataCluster))
        return Problem(why, "%s: %u clusters from cluster %u do not fit the data area", name, clusters,
                       file.firstCluster);
    std::vector<uint32_t> entries;
    for (uint32_t done = 0; done < clusters; done += static_cast<uint32_t>(entries.size())) {
        entries.resize(std::min(kFatEntriesPerRead, clusters - done));
        uint32_t from = file.firstCluster + done;
        if (!ReadAt(fd, v.FatOffset() + uint64_t{from} * kFatEntryBytes, entries.data(),
                    entries.size() * kFatEntryBytes))
            return Problem(why, "%s: cannot read its FAT entries", name);
        for (uint32_t i = 0; i < entries.size(); ++i) {
            uint32_t cluster = from + i;
            uint32_t next = entries[i] & kFatEntryMask;
            bool last = done + i + 1 == clusters;
            if (last && next < kFatEndOfChainMin)
                return Problem(why, "%s: its chain goes on past its size, at cluster %u to %u", name, cluster,
                               next);
            if (!last && next != cluster + 1)
                return Problem(why, "%s: not contiguous, cluster %u is followed by %u", name, cluster, next);
        }
    }
    return 0;
}
