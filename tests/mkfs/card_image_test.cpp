#include "mkfs/card_image.h"

#include <gtest/gtest.h>

#include "fat_image_reader.h"
#include "mkfs/mkfs_vfat.h"
#include "support/test_support.h"

namespace {

class CardImageTest : public testing::Test {
protected:
    void SetUp() override {
        path_ = dir_.File("card.img");
        MakeSparseFile(path_, 3ull << 30);
        MkfsCapacityInfo capacity{};
        testing::internal::CaptureStderr();
        ASSERT_EQ(MkfsVfatFormat(path_.c_str(), &capacity, 70, MkfsOptions{nullptr, nullptr, 0}, &layout_),
                  0);
        testing::internal::GetCapturedStderr();
    }
    TempDir dir_;
    std::string path_;
    Fat32Layout layout_{};
};

}  // namespace

// The bytes land where a FAT driver finds the file: through its directory
// entry and cluster chain, and through mtools when installed.
TEST_F(CardImageTest, WritesInsideTheNamedFile) {
    ASSERT_EQ(CardFilePosition(layout_, "index000.bin"), static_cast<int>(layout_.FileCount() - 2));
    const std::string header = "SIHF header bytes";
    const std::string tail = "near the end";
    ASSERT_EQ(CardImageWriteFile(path_.c_str(), layout_, "index000.bin", 0, header.data(), header.size()), 0);
    ASSERT_EQ(CardImageWriteFile(path_.c_str(), layout_, "index000.bin", 0x4000000 - tail.size(), tail.data(),
                                 tail.size()),
              0);
    FatImage image;
    ASSERT_TRUE(image.Open(path_));
    std::vector<DirFile> files = image.RootDirectory();
    ASSERT_EQ(files[layout_.FileCount() - 2].longName, "index000.bin");
    std::vector<uint32_t> chain = FatImage::Chain(image.Fat(0), files[layout_.FileCount() - 2].firstCluster);
    EXPECT_EQ(image.ClusterBytes(chain.front()).substr(0, header.size()), header);
    std::string last = image.ClusterBytes(chain.back());
    EXPECT_EQ(last.substr(last.size() - tail.size()), tail);
    if (HaveTool("mcopy")) {
        int status = 0;
        std::string extracted = RunCommand("mcopy -i '" + path_ + "' ::index000.bin - | head -c 17", &status);
        EXPECT_EQ(extracted, header);
    }
}

TEST_F(CardImageTest, RefusesWritesOutsideTheFileSet) {
    const char data[8] = {};
    testing::internal::CaptureStderr();
    EXPECT_EQ(CardImageWriteFile(path_.c_str(), layout_, "index002.bin", 0, data, sizeof data), -1);
    EXPECT_EQ(CardImageWriteFile(path_.c_str(), layout_, "index001.bin", 0x4000000 - 4, data, sizeof data),
              -1);
    EXPECT_EQ(CardImageWriteFile(dir_.File("gone.img").c_str(), layout_, "index000.bin", 0, data, 8), -1);
    std::string messages = testing::internal::GetCapturedStderr();
    EXPECT_NE(messages.find("no room for 8 bytes at 67108860 in 'index001.bin'"), std::string::npos);
    EXPECT_NE(messages.find("can't open"), std::string::npos);
    EXPECT_EQ(CardFilePosition(layout_, "hi000099.mp4"), -1);
}
