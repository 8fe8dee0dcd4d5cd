#include "mkfs/card_file_set.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr uint64_t kGiB = 1ull << 30;

}  // namespace

TEST(CardFileSetTest, PicturesThenMediaThenTheFixedFiles) {
    const struct {
        uint32_t position;
        const char *shortName;
        const char *longName;
        uint32_t size;
    } expected[] = {
        {1, "HI000001PIC", "hi000001.pic", 0x10000000},
        {2, "HI000000MP4", "hi000000.mp4", 0x10000000},
        {6, "KEYFRAMEBIN", "keyframe.bin", 0x10000000},
        {7, "INDEX000BIN", "index000.bin", 0x4000000},
    };
    CardFile file;
    for (const auto &e : expected) {
        ASSERT_EQ(CardFileAt(e.position, 2, 3, &file), 0) << e.position;
        EXPECT_EQ(std::string(file.m_szShortName), e.shortName);
        EXPECT_EQ(std::string(file.m_szLongName), e.longName);
        EXPECT_EQ(file.m_u32Size, e.size);
        EXPECT_EQ(file.m_bLarge, e.size == 0x10000000);
    }
    EXPECT_EQ(CardFileAt(9, 2, 3, &file), -1);
    EXPECT_EQ(CardFileCount(2, 3), 9u);
    ASSERT_EQ(CardFileAt(0, 0, 0, &file), 0);
    EXPECT_EQ(std::string(file.m_szLongName), "event000.bin");
}

TEST(CardFileSetTest, SplitsTheSpaceAndCapsMediaFilesAt2040) {
    const struct {
        uint64_t bytes;
        int percent;
        MkfsCapacityInfo expected;
        int result;
    } cases[] = {
        {2 * kGiB, 100, {2048, 1024, 4, 0, 0}, 0},
        {2 * kGiB, 70, {2048, 716, 2, 307, 1}, 0},
        {2 * kGiB, 0, {2048, 0, 0, 1024, 4}, 0},
        {15500000000ull, 100, {14781, 13757, 53, 0, 0}, 0},
        {kGiB - 1, 100, {1023, 0, 0, 0, 0}, 0},
        // 1 TiB would take 4092 media files; the index (and above all the
        // event file) describes 2040: the rest of the media share stays
        // unallocated, the picture share is untouched.
        {1024 * kGiB, 100, {1048576, 2040 * 256, 2040, 0, 0}, 1},
        {1024 * kGiB, 50, {1048576, 522240, 2040, 523776, 2046}, 1},
        {(1 + 2040ull / 4) * kGiB, 100, {(1 + 2040 / 4) * 1024, 2040 * 256, 2040, 0, 0}, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.bytes) + " at " + std::to_string(c.percent));
        MkfsCapacityInfo capacity{};
        EXPECT_EQ(CardSplitCapacity(c.bytes, c.percent, &capacity), c.result);
        EXPECT_EQ(capacity.m_u64TotalSize, c.expected.m_u64TotalSize);
        EXPECT_EQ(capacity.m_u64VideoSpace, c.expected.m_u64VideoSpace);
        EXPECT_EQ(capacity.m_u32VideoFileNum, c.expected.m_u32VideoFileNum);
        EXPECT_EQ(capacity.m_u32PictureFileNum, c.expected.m_u32PictureFileNum);
        EXPECT_EQ(capacity.m_u64PictureSpace, c.expected.m_u64PictureSpace);
    }
    MkfsCapacityInfo capacity{};
    EXPECT_EQ(CardSplitCapacity(2 * kGiB, 101, &capacity), -1);
    EXPECT_EQ(CardSplitCapacity(2 * kGiB, -1, &capacity), -1);
    EXPECT_EQ(kCardMaxMediaFiles, 2040u);
}
