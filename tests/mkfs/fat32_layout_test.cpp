#include "mkfs/fat32_layout.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t kGiB = 1ull << 30;

Fat32Layout SizedLayout(uint64_t bytes) {
    Fat32Layout layout{};
    layout.deviceBytes = bytes;
    layout.bytesPerSector = kDefaultSectorSize;
    layout.totalSectors = static_cast<uint32_t>(bytes / kDefaultSectorSize);
    layout.sectorsPerCluster = Fat32SectorsPerCluster(bytes);
    return layout;
}

}  // namespace

TEST(Fat32LayoutTest, ClusterSizeFollowsTheDeviceSizeTable) {
    const struct {
        uint64_t bytes;
        uint32_t sectorsPerCluster;
    } cases[] = {
        {0x103FFFFF, 1},      {0x10400000, 8},  {8 * kGiB - 1, 8},   {8 * kGiB, 16},
        {15500000000ull, 16}, {16 * kGiB, 32},  {32 * kGiB - 1, 32}, {32 * kGiB, 64},
        {64 * kGiB - 1, 64},  {64 * kGiB, 128}, {2048 * kGiB, 128},
    };
    for (const auto &c : cases) EXPECT_EQ(Fat32SectorsPerCluster(c.bytes), c.sectorsPerCluster) << c.bytes;
}

// The FAT must map every data cluster (plus the two reserved entries) and
// the data clusters must be exactly what is left after the FATs.
TEST(Fat32LayoutTest, FatCoversEveryClusterWithLittleSlack) {
    for (uint64_t bytes :
         std::initializer_list<uint64_t>{kGiB, 2 * kGiB, 15500000000ull, 64 * kGiB - 4096, 64 * kGiB,
                                         1000 * kGiB, 0xFFFFFFFFull * kDefaultSectorSize}) {
        SCOPED_TRACE(bytes);
        Fat32Layout layout = SizedLayout(bytes);
        uint32_t chosen = layout.sectorsPerCluster;
        ASSERT_EQ(Fat32SizeFat(&layout), 0);
        EXPECT_EQ(layout.sectorsPerCluster, chosen);
        uint64_t needed = (static_cast<uint64_t>(layout.clusterCount) + 2 + 127) / 128;
        EXPECT_GE(layout.fatSectors, needed);
        EXPECT_LE(layout.fatSectors, needed + 2);
        EXPECT_EQ(layout.clusterCount, (layout.totalSectors - kFat32ReservedSectors - 2 * layout.fatSectors) /
                                           layout.sectorsPerCluster);
        EXPECT_LT(layout.clusterCount, kFat32MaxClusters);
    }
}

TEST(Fat32LayoutTest, DoublesTheClusterSizeUntilTheClustersFit) {
    Fat32Layout layout = SizedLayout(0xFFFFFFFFull * kDefaultSectorSize);
    layout.sectorsPerCluster = 1;
    ASSERT_EQ(Fat32SizeFat(&layout), 0);
    EXPECT_EQ(layout.sectorsPerCluster, 16u);  // 2^32 sectors in 8-sector clusters are too many
}

TEST(Fat32LayoutTest, FilesFollowTheRootDirectoryBackToBack) {
    Fat32Layout layout = SizedLayout(15500000000ull);
    ASSERT_EQ(Fat32SizeFat(&layout), 0);
    layout.pictureFiles = 2;
    layout.mediaFiles = 120;  // 126 files: 8064 directory bytes fill one 8 KiB cluster
    Fat32SizeFiles(&layout);
    EXPECT_EQ(layout.rootDirClusters, 1u);
    EXPECT_EQ(layout.clustersPerLargeFile, 32768u);
    EXPECT_EQ(layout.clustersPerSmallFile, 8192u);
    layout.mediaFiles = 125;  // 131 files: a second cluster
    Fat32SizeFiles(&layout);
    EXPECT_EQ(layout.rootDirClusters, 2u);
    EXPECT_EQ(Fat32FileFirstCluster(layout, 0), 4u);
    EXPECT_EQ(Fat32FileFirstCluster(layout, 129), 4u + 129 * 32768);  // index000.bin
    EXPECT_EQ(Fat32FileClusters(layout, 128), 32768u);                // keyframe.bin
    EXPECT_EQ(Fat32FileClusters(layout, 129), 8192u);
    EXPECT_EQ(Fat32EndCluster(layout), 4u + 129 * 32768 + 2 * 8192);
    EXPECT_EQ(Fat32ClusterOffset(layout, 2), static_cast<uint64_t>(layout.DataStartSector()) * 512);
}
