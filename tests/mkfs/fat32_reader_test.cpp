#include "mkfs/fat32_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "mkfs/card_file_set.h"
#include "support/formatted_card.h"
#include "support/test_support.h"

namespace {

class Fat32ReaderTest : public testing::Test {
protected:
    void SetUp() override { layout_ = FormatTestCard(image_); }
    // Reads the volume and the directory of the image as it is now.
    int Read(Fat32Volume *volume, std::vector<Fat32File> *files, std::string *why) {
        int fd = ::open(image_.c_str(), O_RDONLY | O_CLOEXEC);
        int result = Fat32ReadVolume(fd, volume, why);
        if (result == 0) result = Fat32ReadRootDirectory(fd, *volume, files, why);
        ::close(fd);
        return result;
    }
    std::string CheckRun(const Fat32Volume &volume, const Fat32File &file) {
        int fd = ::open(image_.c_str(), O_RDONLY | O_CLOEXEC);
        std::string why;
        Fat32CheckContiguous(fd, volume, file, &why);
        ::close(fd);
        return why;
    }

    TempDir dir_;
    std::string image_ = dir_.File("card.img");
    Fat32Layout layout_{};
};

// The volume and every file come back where the formatter put them, each
// one run of clusters.
TEST_F(Fat32ReaderTest, ReadsBackWhatTheFormatterLaidOut) {
    Fat32Volume volume{};
    std::vector<Fat32File> files;
    std::string why;
    ASSERT_EQ(Read(&volume, &files, &why), 0) << why;
    EXPECT_EQ(volume.DataOffset(), uint64_t{layout_.DataStartSector()} * layout_.bytesPerSector);
    EXPECT_EQ(volume.ClusterBytes(), layout_.ClusterBytes());
    EXPECT_EQ(volume.clusterCount, layout_.clusterCount);
    ASSERT_EQ(files.size(), layout_.FileCount());
    for (uint32_t position = 0; position < files.size(); ++position) {
        CardFile expected;
        ASSERT_EQ(CardFileAt(position, layout_.pictureFiles, layout_.mediaFiles, &expected), 0);
        EXPECT_EQ(files[position].name, expected.m_szLongName);
        EXPECT_EQ(files[position].firstCluster, Fat32FileFirstCluster(layout_, position));
        EXPECT_EQ(files[position].size, expected.m_u32Size);
        EXPECT_EQ(CheckRun(volume, files[position]), "") << expected.m_szLongName;
    }
}

// Each field a reader relies on is checked, with a message naming it.
TEST_F(Fat32ReaderTest, RefusesBootSectorsItCannotTrust) {
    const std::string boot = ReadFileAt(image_, 0, kFat32BootSectorSize);
    struct Case {
        size_t offset;
        std::string bytes;
        const char *message;
    } cases[] = {
        {510, std::string("\x55\x00", 2), "no boot sector signature (bytes 510-511 are 55 00, not 55 aa)"},
        {0, std::string("\x33", 1), "no jump instruction in front of the boot sector: a partition table?"},
        {11, std::string("\x00\x03", 2), "logical sector size of 768 bytes is not a power of two"},
        {13, std::string("\x03", 1), "cluster size of 3 sectors is not a power of two up to 128"},
        {14, std::string("\x00\x00", 2), "no reserved sectors in front of the FAT"},
        {16, std::string("\x03", 1), "3 FATs: only 1 or 2 are supported"},
        {22, std::string("\x20\x00", 2),
         "not FAT32 but FAT12/16 (32 sectors per FAT, 0 root directory entries)"},
        {36, Le32(0), "not FAT32: no sectors per FAT"},
        {36, Le32(0x00800000), "the FATs end at sector"},
        {36, Le32(1), "a FAT of 1 sectors cannot hold"},
        {44, Le32(1), "root directory cluster 1 is outside the data area"},
        {32, Le32(0x01000000), "the volume has 8589934592 bytes, the image only 2147483648 (cut short?)"},
    };
    for (const Case &c : cases) {
        std::string sector = boot;
        sector.replace(c.offset, c.bytes.size(), c.bytes);
        Fat32Volume volume{};
        std::string why;
        EXPECT_EQ(Fat32DecodeVolume(reinterpret_cast<const uint8_t *>(sector.data()), kTestCardBytes, &volume,
                                    &why),
                  -1);
        EXPECT_EQ(why.find(c.message), 0u) << why;
    }
}

// A file whose chain jumps, or runs on past its size, is not one run; a
// root directory whose chain loops back is given up on.
TEST_F(Fat32ReaderTest, FindsBrokenRunsAndEndlessDirectories) {
    Fat32Volume volume{};
    std::vector<Fat32File> files;
    std::string why;
    ASSERT_EQ(Read(&volume, &files, &why), 0) << why;
    const Fat32File &media = files[layout_.pictureFiles];
    const Fat32File &index = files[files.size() - 2];
    WriteFileAt(image_, FatEntryOffset(layout_, media.firstCluster + 5), Le32(media.firstCluster + 9));
    EXPECT_EQ(CheckRun(volume, media), "hi000000.mp4: not contiguous, cluster " +
                                           std::to_string(media.firstCluster + 5) + " is followed by " +
                                           std::to_string(media.firstCluster + 9));
    uint32_t last = index.firstCluster + layout_.clustersPerSmallFile - 1;
    WriteFileAt(image_, FatEntryOffset(layout_, last), Le32(last + 1));
    EXPECT_EQ(CheckRun(volume, index).find("index000.bin: its chain goes on past its size"), 0u);
    Fat32File huge = media;
    huge.size = 0xFFFFFFFF;
    huge.firstCluster = volume.clusterCount;
    EXPECT_NE(CheckRun(volume, huge).find("do not fit the data area"), std::string::npos);

    // No end mark in the directory's one cluster, and its FAT entry points back to itself.
    std::string cluster =
        ReadFileAt(image_, Fat32ClusterOffset(layout_, kFat32RootCluster), layout_.ClusterBytes());
    for (size_t at = layout_.FileCount() * kDirBytesPerFile; at < cluster.size(); at += kDirEntrySize)
        cluster[at] = static_cast<char>(0xE5);
    WriteFileAt(image_, Fat32ClusterOffset(layout_, kFat32RootCluster), cluster);
    WriteFileAt(image_, FatEntryOffset(layout_, kFat32RootCluster), Le32(kFat32RootCluster));
    EXPECT_EQ(Read(&volume, &files, &why), -1);
    EXPECT_EQ(why, "root directory chain does not end");
}

}  // namespace
