#include "mkfs/mkfs_vfat.h"

#include <gtest/gtest.h>

#include "common/log.h"
#include "fat_image_reader.h"
#include "mkfs/capacity_probe.h"
#include "support/faulty_file_io.h"
#include "support/test_support.h"

namespace {

constexpr uint64_t kGiB = 1ull << 30;
constexpr time_t kFormatTime = 1700000000;

struct CardCase {
    uint64_t bytes;
    int percent;
    uint32_t sectorsPerCluster;
    uint32_t media;
    uint32_t pictures;
};

int Format(const std::string &image, int percent, MkfsCapacityInfo *capacity, Fat32Layout *layout = nullptr) {
    testing::internal::CaptureStderr();
    int result =
        MkfsVfatFormat(image.c_str(), capacity, percent, MkfsOptions{nullptr, nullptr, kFormatTime}, layout);
    testing::internal::GetCapturedStderr();
    return result;
}

// Every file is one contiguous run that starts where the previous ended,
// its chain ends with an end mark, and nothing after the last file is used.
void ExpectContiguousFiles(const FatImage &image, const std::vector<DirFile> &files) {
    const Fat32Layout &layout = image.layout();
    std::vector<uint32_t> fat = image.Fat(0);
    ASSERT_EQ(fat, image.Fat(1)) << "the two FATs differ";
    EXPECT_EQ(fat[0], 0x0FFFFFF8u);
    EXPECT_EQ(fat[1], 0xFFFFFFFFu);
    uint32_t rootClusters = static_cast<uint32_t>(FatImage::Chain(fat, kFat32RootCluster).size());
    uint32_t next = kFat32RootCluster + rootClusters;
    for (const DirFile &file : files) {
        SCOPED_TRACE(file.longName);
        ASSERT_EQ(file.firstCluster, next);
        std::vector<uint32_t> chain = FatImage::Chain(fat, file.firstCluster);
        ASSERT_EQ(chain.size(), file.size / layout.ClusterBytes());
        EXPECT_EQ(chain.back(), file.firstCluster + chain.size() - 1) << "not one run";
        EXPECT_EQ(fat[chain.back()], kFat32EndOfChain);
        next += static_cast<uint32_t>(chain.size());
    }
    ASSERT_LE(next, layout.clusterCount + kFat32RootCluster);
    for (uint32_t cluster = next; cluster < fat.size(); ++cluster) ASSERT_EQ(fat[cluster], 0u) << cluster;
}

// mdir reads every long name (so their checksums hold) and no other file.
void ExpectMdirListing(const std::string &image, const std::vector<DirFile> &files) {
    int status = 0;
    std::string listing = RunCommand("mdir -i '" + image + "' ::", &status);
    ASSERT_EQ(status, 0) << listing;
    for (const DirFile &file : files) {
        EXPECT_NE(listing.find(" " + file.longName + "\n"), std::string::npos) << file.longName;
    }
    const std::string count = std::to_string(files.size());
    EXPECT_NE(listing.find(" " + count + " files"), std::string::npos) << listing;
}

}  // namespace

class MkfsCardTest : public testing::TestWithParam<CardCase> {};

TEST_P(MkfsCardTest, LaysOutTheFileSetContiguously) {
    const CardCase &card = GetParam();
    TempDir dir;
    std::string path = dir.File("card.img");
    MakeSparseFile(path, card.bytes);
    MkfsCapacityInfo capacity{};
    ASSERT_EQ(Format(path, card.percent, &capacity), 0);
    EXPECT_EQ(capacity.m_u64TotalSize, card.bytes >> 20);
    EXPECT_EQ(capacity.m_u32VideoFileNum, card.media);
    EXPECT_EQ(capacity.m_u32PictureFileNum, card.pictures);

    FatImage image;
    ASSERT_TRUE(image.Open(path));
    EXPECT_EQ(image.layout().sectorsPerCluster, card.sectorsPerCluster);
    EXPECT_EQ(image.Sector(0), image.Sector(3)) << "backup boot sector";
    EXPECT_EQ(image.Sector(1), image.Sector(4)) << "backup FSInfo";
    EXPECT_EQ(image.Sector(2), std::string(512, '\0'));
    Fat32FsInfo info;
    memcpy(&info, image.Sector(1).data(), sizeof info);
    EXPECT_EQ(info.freeClusters, image.layout().clusterCount - 1);

    std::string raw;
    std::vector<DirFile> files = image.RootDirectory(&raw);
    ASSERT_EQ(files.size(), card.pictures + card.media + 4);
    for (uint32_t i = 0; i < files.size(); ++i) {
        CardFile expected;
        ASSERT_EQ(CardFileAt(i, card.pictures, card.media, &expected), 0);
        EXPECT_EQ(files[i].longName, expected.m_szLongName);
        EXPECT_EQ(files[i].shortName, expected.m_szShortName);
        EXPECT_EQ(files[i].size, expected.m_u32Size);
    }
    EXPECT_EQ(raw.find_first_not_of('\0', files.size() * kDirBytesPerFile), std::string::npos)
        << "slots after the last file must stay zero";
    ExpectContiguousFiles(image, files);

    if (HaveTool("fsck.fat")) {
        EXPECT_EQ(FsckProblems(path), "");
    }
    if (HaveTool("mdir")) ExpectMdirListing(path, files);
}

INSTANTIATE_TEST_SUITE_P(Sizes, MkfsCardTest,
                         testing::Values(CardCase{15500000000ull, 100, 16, 53, 0},
                                         CardCase{2 * kGiB, 100, 8, 4, 0}, CardCase{2 * kGiB, 70, 8, 2, 1},
                                         CardCase{64 * kGiB, 100, 128, 252, 0},
                                         CardCase{64 * kGiB, 70, 128, 176, 75},
                                         CardCase{256 * kGiB, 100, 128, 1020, 0},
                                         CardCase{256 * kGiB, 70, 128, 714, 306}));

// Only the boot sectors, FATs and root directory are written, front to
// back with progress reports; file clusters keep what the card held.
TEST(MkfsVfatTest, WritesOnlyTheFileSystemNeverFileContents) {
    TempDir dir;
    std::string path = dir.File("card.img");
    MakeSparseFile(path, 2 * kGiB);
    MkfsCapacityInfo capacity{};
    Fat32Layout layout{};
    ASSERT_EQ(Format(path, 100, &capacity, &layout), 0);
    uint64_t firstFile = Fat32ClusterOffset(layout, Fat32FileFirstCluster(layout, 0));
    uint64_t lastFileEnd = Fat32ClusterOffset(layout, Fat32EndCluster(layout));
    WriteFileAt(path, firstFile, "old recording");
    WriteFileAt(path, lastFileEnd - 5, "index");

    std::vector<uint64_t> done;
    auto record = [](uint64_t bytes, uint64_t total, void *user) {
        static_cast<std::vector<uint64_t> *>(user)->push_back(bytes == total ? bytes : 0);
    };
    LogEnable("test", 0);
    testing::internal::CaptureStderr();
    ASSERT_EQ(MkfsVfatFormat(path.c_str(), &capacity, 100, MkfsOptions{record, &done, kFormatTime}, nullptr),
              0);
    std::string log = testing::internal::GetCapturedStderr();
    // A tool's call with options logs as the formatter itself.
    EXPECT_TRUE(LogNamesFunction(log, "mkfs_vfat")) << log;
    EXPECT_FALSE(LogNamesFunction(log, "MkfsVfatFormat")) << log;
    ASSERT_GT(done.size(), 1u);
    EXPECT_EQ(done.back(), firstFile) << "the last report covers everything up to the first file";
    EXPECT_EQ(ReadFileAt(path, firstFile, 13), "old recording");
    EXPECT_EQ(ReadFileAt(path, lastFileEnd - 5, 5), "index");
}

// Error paths: each ends with -1 and the message of its cause, and a
// refused target is left as it was.
TEST(MkfsVfatTest, RefusesBadTargetsBeforeWriting) {
    TempDir dir;
    std::string image = dir.File("card.img");
    MakeSparseFile(image, 2 * kGiB);
    std::string small = dir.File("small.img");
    MakeSparseFile(small, kGiB - 512);
    struct Case {
        const char *name;
        std::string path;
        int percent;
        const char *message;
    } cases[] = {
        {"missing", dir.File("none.img"), 100, "can't open '"},
        {"directory", dir.path(), 100, "image size must be specified"},
        {"too small", small, 100, "image is too small"},
        {"percent above", image, 101, "percentage 101 is outside 0..100"},
        {"percent below", image, -1, "percentage -1 is outside 0..100"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        MkfsCapacityInfo capacity{};
        testing::internal::CaptureStderr();
        EXPECT_EQ(mkfs_vfat(c.path.c_str(), &capacity, c.percent), -1);
        EXPECT_NE(testing::internal::GetCapturedStderr().find(c.message), std::string::npos);
    }
    EXPECT_EQ(ReadFileAt(image, 0, 4096), std::string(4096, '\0'));
    EXPECT_EQ(ReadFileAt(small, 0, 4096), std::string(4096, '\0'));
    MkfsCapacityInfo capacity{};
    EXPECT_EQ(mkfs_vfat(nullptr, &capacity, 100), -1);
    EXPECT_EQ(mkfs_vfat(image.c_str(), nullptr, 100), -1);
}

// The capacity check before the layout reads, marks, reads back and
// restores one sector per point; the layout's own operations come after.
constexpr int kProbeSeeks = 4 * (kCapacityProbePoints + 1);
constexpr int kProbeWrites = 2 * (kCapacityProbePoints + 1);
constexpr uint64_t kProbeBytes = 512ull * kProbeWrites;

TEST(MkfsVfatTest, IoFailuresEndTheFormat) {
    TempDir dir;
    std::string image = dir.File("card.img");
    MakeSparseFile(image, 2 * kGiB);
    struct Case {
        const char *name;
        void (*arm)(FaultyFileIo &);
        const char *message;
    } cases[] = {
        {"probe", [](FaultyFileIo &io) { io.FailNth(FaultyFileIo::Op::kWrite, 1); }, "capacity check failed"},
        {"seek", [](FaultyFileIo &io) { io.FailNth(FaultyFileIo::Op::kSeek, kProbeSeeks + 1); }, "lseek(0)"},
        {"write", [](FaultyFileIo &io) { io.FailNth(FaultyFileIo::Op::kWrite, kProbeWrites + 2); },
         "write error"},
        {"short", [](FaultyFileIo &io) { io.ShortWriteNth(kProbeWrites + 1, 100); }, "short write"},
        {"full", [](FaultyFileIo &io) { io.NoSpaceAfter(kProbeBytes + (3 << 20) + 100); }, "short write"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        FaultyFileIo io;
        c.arm(io);
        MkfsCapacityInfo capacity{};
        testing::internal::CaptureStderr();
        EXPECT_EQ(mkfs_vfat(image.c_str(), &capacity, 100), -1);
        std::string messages = testing::internal::GetCapturedStderr();
        EXPECT_NE(messages.find(c.message), std::string::npos) << messages;
        EXPECT_EQ(messages.find("mkfs_vfat end"), std::string::npos);
    }
}
