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

// Sized through the doubling rounds, the FAT still maps every data cluster
// (plus the two reserved entries) and the data clusters are exactly what is
// left after the FATs.
TEST(Fat32LayoutTest, DoublesTheClusterSizeUntilTheClustersFit) {
    Fat32Layout layout = SizedLayout(0xFFFFFFFFull * kDefaultSectorSize);
    layout.sectorsPerCluster = 1;
    ASSERT_EQ(Fat32SizeFat(&layout), 0);
    EXPECT_EQ(layout.sectorsPerCluster, 16u);  // 2^32 sectors in 8-sector clusters are too many
    EXPECT_GE(static_cast<uint64_t>(layout.fatSectors) * 128, layout.clusterCount + 2ull);
    EXPECT_LE(layout.fatSectors, (layout.clusterCount + 2ull) / 128 + 3);
    EXPECT_EQ(layout.clusterCount, (layout.totalSectors - 6 - 2 * layout.fatSectors) / 16);
}
