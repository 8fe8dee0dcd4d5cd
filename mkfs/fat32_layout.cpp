#include "mkfs/fat32_layout.h"

#include <cstdio>

#include "mkfs/card_file_set.h"

namespace {

constexpr uint64_t kGiB = 1ull << 30;
constexpr uint64_t kSingleSectorClusterLimit = 0x103FFFFF;
constexpr int64_t kFat32ClusterOverflow = 0x80FFFFFF;
constexpr uint32_t kFat32MinDataSectors = 4;

// The size table: the largest device size for each cluster size.
struct ClusterSizeStep {
    uint64_t below;  // devices smaller than this
    uint32_t sectorsPerCluster;
};
constexpr ClusterSizeStep kClusterSizeTable[] = {
    {kSingleSectorClusterLimit + 1, 1}, {8 * kGiB, 8}, {16 * kGiB, 16}, {32 * kGiB, 32}, {64 * kGiB, 64},
};

uint32_t CeilDiv(uint64_t value, uint64_t divisor) {
    return static_cast<uint32_t>((value + divisor - 1) / divisor);
}

// One round at a fixed cluster size: 1 when the FAT fits, 0 when the
// clusters are too many for this cluster size.
int FitFat(uint32_t dataSectors, uint32_t entriesPerSector, Fat32Layout *layout) {
    for (;;) {
        int64_t clusters =
            (static_cast<int64_t>(dataSectors) - 2 * static_cast<int64_t>(layout->fatSectors)) /
            layout->sectorsPerCluster;
        if (clusters < 0 || clusters > kFat32ClusterOverflow) return 0;
        int64_t needed = (clusters + 2 + entriesPerSector - 1) / entriesPerSector;
        int64_t adjustment = needed - layout->fatSectors;
        if (adjustment > 0) {
            layout->fatSectors += static_cast<uint32_t>(adjustment / 2) | 1;
            continue;
        }
        if (clusters >= kFat32MaxClusters) return 0;
        layout->clusterCount = static_cast<uint32_t>(clusters);
        return 1;
    }
}

}  // namespace

uint32_t Fat32Layout::FileCount() const { return CardFileCount(pictureFiles, mediaFiles); }

uint32_t Fat32SectorsPerCluster(uint64_t deviceBytes) {
    for (const ClusterSizeStep &step : kClusterSizeTable) {
        if (deviceBytes < step.below) return step.sectorsPerCluster;
    }
    return kFat32MaxSectorsPerCluster;
}

int Fat32SizeFat(Fat32Layout *layout) {
    if (layout->totalSectors < kFat32ReservedSectors + kFat32MinDataSectors) {
        fprintf(stderr, "the image is too small for FAT32\n");
    }
    uint32_t dataSectors = layout->totalSectors - kFat32ReservedSectors;
    layout->fatSectors = 1;
    while (!FitFat(dataSectors, layout->FatEntriesPerSector(), layout)) {
        if (layout->sectorsPerCluster >= kFat32MaxSectorsPerCluster) {
            fprintf(stderr, "can't make FAT32 with >128 sectors/cluster\n");
            return -1;
        }
        layout->sectorsPerCluster *= 2;
        layout->fatSectors = (layout->fatSectors / 2) | 1;
    }
    return 0;
}

void Fat32SizeFiles(Fat32Layout *layout) {
    uint32_t clusterBytes = layout->ClusterBytes();
    layout->rootDirClusters =
        CeilDiv(static_cast<uint64_t>(layout->FileCount()) * kDirBytesPerFile, clusterBytes);
    layout->clustersPerLargeFile = CeilDiv(kCardLargeFileSize, clusterBytes);
    layout->clustersPerSmallFile = CeilDiv(kCardSmallFileSize, clusterBytes);
}

uint32_t Fat32FileFirstCluster(const Fat32Layout &layout, uint32_t position) {
    uint32_t largeFiles = layout.FileCount() - 2;  // everything before the two index files
    uint32_t large = position < largeFiles ? position : largeFiles;
    uint32_t small = position - large;
    return kFat32RootCluster + layout.rootDirClusters + large * layout.clustersPerLargeFile +
           small * layout.clustersPerSmallFile;
}

uint32_t Fat32FileClusters(const Fat32Layout &layout, uint32_t position) {
    return position < layout.FileCount() - 2 ? layout.clustersPerLargeFile : layout.clustersPerSmallFile;
}

uint32_t Fat32EndCluster(const Fat32Layout &layout) {
    return Fat32FileFirstCluster(layout, layout.FileCount());
}

uint64_t Fat32ClusterOffset(const Fat32Layout &layout, uint32_t cluster) {
    uint64_t sector = layout.DataStartSector() +
                      static_cast<uint64_t>(cluster - kFat32RootCluster) * layout.sectorsPerCluster;
    return sector * layout.bytesPerSector;
}
