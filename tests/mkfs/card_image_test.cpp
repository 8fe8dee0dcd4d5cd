#include "mkfs/card_image.h"

#include <gtest/gtest.h>

#include "fat_image_reader.h"
#include "mkfs/mkfs_vfat.h"
#include "support/test_support.h"

// The bytes land where a FAT driver finds the file, through its directory
// entry; writes that would leave the file are refused.
TEST(CardImageTest, WritesOnlyInsideTheNamedFile) {
    TempDir dir;
    std::string path = dir.File("card.img");
    MakeSparseFile(path, 3ull << 30);
    MkfsCapacityInfo capacity{};
    Fat32Layout layout{};
    testing::internal::CaptureStderr();
    ASSERT_EQ(MkfsVfatFormat(path.c_str(), &capacity, 70, MkfsOptions{nullptr, nullptr, 0}, &layout), 0);
    const std::string header = "SIHF header bytes";
    EXPECT_EQ(CardImageWriteFile(path.c_str(), layout, "index000.bin", 0, header.data(), header.size()), 0);
    EXPECT_EQ(CardImageWriteFile(path.c_str(), layout, "index002.bin", 0, header.data(), 8), -1);
    EXPECT_EQ(CardImageWriteFile(path.c_str(), layout, "index001.bin", 0x4000000 - 4, header.data(), 8), -1);
    EXPECT_EQ(CardImageWriteFile(dir.File("gone.img").c_str(), layout, "index000.bin", 0, header.data(), 8),
              -1);
    std::string messages = testing::internal::GetCapturedStderr();
    EXPECT_NE(messages.find("no room for 8 bytes at 67108860 in 'index001.bin'"), std::string::npos);
    EXPECT_NE(messages.find("can't open"), std::string::npos);

    FatImage image;
    ASSERT_TRUE(image.Open(path));
    std::vector<DirFile> files = image.RootDirectory();
    ASSERT_EQ(CardFilePosition(layout, "index000.bin"), static_cast<int>(files.size() - 2));
    ASSERT_EQ(files[files.size() - 2].longName, "index000.bin");
    EXPECT_EQ(image.ClusterBytes(files[files.size() - 2].firstCluster).substr(0, header.size()), header);
}
