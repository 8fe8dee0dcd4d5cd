#include "mkfs/mkfs_vfat.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "common/log.h"
#include "mkfs/capacity_probe.h"
#include "mkfs/fat32_records.h"
#include "mkfs/mkfs_io.h"

namespace {

constexpr size_t kWriteBufferSize = 1 << 20;
// The formatter's log lines name it, also when a tool calls it with options.
constexpr const char kFormatFunction[] = "mkfs_vfat";
constexpr uint32_t kFat32Entry0 = 0x0FFFFF00 | kFat32Media;
constexpr uint64_t kMaxTotalSectors = 0xFFFFFFFF;

// Size checks, cluster size, FAT size, file counts and the fit of the file
// set: everything decided before the first byte is written.
int PlanLayout(const MkfsDevice &device, int percent, MkfsCapacityInfo *capacity, Fat32Layout *layout) {
    uint64_t sectors = device.bytes / device.sectorSize;
    if (sectors > kMaxTotalSectors) {
        fprintf(stderr, "image size is too big\n");
        return -1;
    }
    if (device.bytes < kCardHeldBackBytes) {
        fprintf(stderr, "image is too small\n");
        return -1;
    }
    *layout = Fat32Layout{};
    layout->deviceBytes = device.bytes;
    layout->bytesPerSector = device.sectorSize;
    layout->totalSectors = static_cast<uint32_t>(sectors);
    bool reported = device.heads != 0 && device.sectorsPerTrack != 0;
    layout->heads = reported ? device.heads : kDefaultHeads;
    layout->sectorsPerTrack = reported ? device.sectorsPerTrack : kDefaultSectorsPerTrack;
    layout->sectorsPerCluster = Fat32SectorsPerCluster(device.bytes);
    if (Fat32SizeFat(layout) != 0) return -1;

    if (CardSplitCapacity(device.bytes, percent, capacity) > 0) {
        fprintf(stderr, "media files capped at %u: the card index cannot describe more\n",
                kCardMaxMediaFiles);
    }
    layout->mediaFiles = capacity->m_u32VideoFileNum;
    layout->pictureFiles = capacity->m_u32PictureFileNum;
    Fat32SizeFiles(layout);
    uint64_t needed = Fat32EndCluster(*layout) - kFat32RootCluster;
    if (needed > layout->clusterCount) {
        fprintf(stderr, "the file set needs %llu clusters, the device has %u\n",
                static_cast<unsigned long long>(needed), layout->clusterCount);
        return -1;
    }
    return 0;
}

void PrintLayout(const char *device, const Fat32Layout &layout, uint32_t volumeId) {
    fprintf(
        stderr,
        "vdeio_file_num = %d picture_file_num = %d dir_clust = %d clust_per_file = %d  reserved_sect = %d \n",
        static_cast<int>(layout.mediaFiles), static_cast<int>(layout.pictureFiles),
        static_cast<int>(layout.rootDirClusters), static_cast<int>(layout.clustersPerLargeFile),
        static_cast<int>(kFat32ReservedSectors));
    fprintf(
        stderr,
        "Device '%s':\nheads:%u, sectors/track:%u, bytes/sector:%u\nmedia descriptor:%02x\ntotal "
        "sectors:%llu, clusters:%u, sectors/cluster:%u\nFATs:2, sectors/FAT:%u\nvolumeID:%08x, label:'%s'\n",
        device, layout.heads, layout.sectorsPerTrack, layout.bytesPerSector, kFat32Media,
        static_cast<unsigned long long>(layout.totalSectors), layout.clusterCount, layout.sectorsPerCluster,
        layout.fatSectors, volumeId, "");
}

// Boot sector, FSInfo and an empty sector.
int PutBootSectors(MkfsWriter &writer, const Fat32Layout &layout, uint32_t volumeId) {
    Fat32BootSector boot;
    Fat32BuildBootSector(layout, volumeId, &boot);
    Fat32FsInfo info;
    Fat32BuildFsInfo(layout, &info);
    size_t padding = layout.bytesPerSector - sizeof boot;
    writer.Put(&boot, sizeof boot);
    writer.PutZeros(padding);
    writer.Put(&info, sizeof info);
    writer.PutZeros(padding);
    return writer.PutZeros(layout.bytesPerSector);
}

// One FAT: the reserved entries, the root directory chain, one chain per
// file in directory order, then free entries.
int PutFat(MkfsWriter &writer, const Fat32Layout &layout) {
    const uint32_t perSector = layout.FatEntriesPerSector();
    const uint32_t rootEnd = kFat32RootCluster + layout.rootDirClusters;
    const uint32_t end = Fat32EndCluster(layout);
    std::vector<uint32_t> sector(perSector);
    uint32_t chainEnd = rootEnd;
    uint32_t position = 0;
    uint64_t entry = 0;
    for (; entry < end; ++entry) {
        uint32_t value;
        if (entry == 0) {
            value = kFat32Entry0;
        } else if (entry == 1) {
            value = kFat32Entry1;
        } else {
            if (entry == chainEnd) chainEnd += Fat32FileClusters(layout, position++);
            bool shortRoot = chainEnd == rootEnd && layout.rootDirClusters == 1;
            value = entry + 1 < chainEnd ? static_cast<uint32_t>(entry + 1)
                                         : (shortRoot ? kFat32ShortRootEnd : kFat32EndOfChain);
        }
        sector[entry % perSector] = value;
        if (entry % perSector == perSector - 1) writer.Put(sector.data(), layout.bytesPerSector);
    }
    uint32_t tail = static_cast<uint32_t>(entry % perSector);
    if (tail != 0) {
        std::fill(sector.begin() + tail, sector.end(), 0);
        writer.Put(sector.data(), layout.bytesPerSector);
        entry += perSector - tail;
    }
    uint64_t entries = static_cast<uint64_t>(layout.fatSectors) * perSector;
    return writer.PutZeros(static_cast<size_t>((entries - entry) * sizeof(uint32_t)));
}

// The root directory, one cluster at a time; slots after the last file
// stay zero.
int PutRootDirectory(MkfsWriter &writer, const Fat32Layout &layout, const Fat32Stamp &stamp) {
    std::vector<uint8_t> cluster(layout.ClusterBytes());
    size_t used = 0;
    CardFile file;
    for (uint32_t position = 0; CardFileAt(position, layout.pictureFiles, layout.mediaFiles, &file) == 0;
         ++position) {
        Fat32LongNameEntry longEntry;
        Fat32ShortEntry shortEntry;
        Fat32BuildDirEntries(file.m_szShortName, file.m_szLongName, Fat32FileFirstCluster(layout, position),
                             file.m_u32Size, stamp, &longEntry, &shortEntry);
        memcpy(cluster.data() + used, &longEntry, sizeof longEntry);
        memcpy(cluster.data() + used + sizeof longEntry, &shortEntry, sizeof shortEntry);
        used += kDirBytesPerFile;
        if (used == cluster.size()) {
            writer.Put(cluster.data(), cluster.size());
            std::fill(cluster.begin(), cluster.end(), 0);
            used = 0;
        }
    }
    if (used > 0) writer.Put(cluster.data(), cluster.size());
    return writer.Flush();
}

uint64_t MetadataBytes(const Fat32Layout &layout) {
    return static_cast<uint64_t>(layout.DataStartSector()) * layout.bytesPerSector +
           static_cast<uint64_t>(layout.rootDirClusters) * layout.ClusterBytes();
}

int WriteFileSystem(int fd, const Fat32Layout &layout, uint32_t volumeId, time_t now,
                    const MkfsOptions &options) {
    MkfsWriter writer(fd, kWriteBufferSize, MetadataBytes(layout), options.progress, options.user);
    fprintf(stderr, "bufsize = %d \n", static_cast<int>(writer.bufferSize()));
    if (writer.Start(0) != 0) return -1;
    PutBootSectors(writer, layout, volumeId);
    PutBootSectors(writer, layout, volumeId);
    for (uint32_t copy = 0; copy < kFat32FatCount; ++copy) PutFat(writer, layout);
    return PutRootDirectory(writer, layout, Fat32StampOf(now));
}

// A card that does not hold the capacity it claims is refused before
// anything is laid out: recording onto it would overwrite its own index.
int CheckRealCapacity(const MkfsDevice &target) {
    uint64_t real = 0;
    int probed = MkfsProbeCapacity(target.fd, target.bytes, target.sectorSize, &real);
    if (probed < 0) {
        fprintf(stderr, "capacity check failed: %s\n", strerror(errno));
        return -1;
    }
    if (probed > 0) {
        fprintf(stderr,
                "the card claims %llu MiB but holds only %llu MiB (markers written across it came back "
                "overwritten): a counterfeit or failing card, not formatted\n",
                static_cast<unsigned long long>(target.bytes >> 20),
                static_cast<unsigned long long>(real >> 20));
        return -1;
    }
    return 0;
}

}  // namespace

int MkfsVfatFormat(const char *device, MkfsCapacityInfo *capacity, int percent, const MkfsOptions &options,
                   Fat32Layout *layout) {
    LogTrace("%s %d \n", kFormatFunction, __LINE__);
    if (device == nullptr || capacity == nullptr) return -1;
    time_t now = options.now != 0 ? options.now : time(nullptr);
    uint32_t volumeId = static_cast<uint32_t>(now);  // a serial number: the clock's low 32 bits will do
    if (percent < 0 || percent > 100) {
        fprintf(stderr, "percentage %d is outside 0..100\n", percent);
        return -1;
    }
    MkfsDevice target;
    if (MkfsOpenDevice(device, &target) != 0) return -1;
    if (CheckRealCapacity(target) != 0) {
        MkfsCloseDevice(&target);
        return -1;
    }
    Fat32Layout planned;
    int result = PlanLayout(target, percent, capacity, &planned);
    if (result == 0) {
        PrintLayout(device, planned, volumeId);
        result = WriteFileSystem(target.fd, planned, volumeId, now, options);
    }
    if (MkfsCloseDevice(&target) != 0) result = -1;
    if (result != 0) return -1;
    if (layout != nullptr) *layout = planned;
    fprintf(stderr, "mkfs_vfat end !!!!!!!!!!!!!!\n");
    return 0;
}

int mkfs_vfat(const char *device, MkfsCapacityInfo *capacity, int percent) {
    return MkfsVfatFormat(device, capacity, percent, MkfsOptions{nullptr, nullptr, 0}, nullptr);
}
