#include "mkfs/card_prealloc.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "mkfs/card_file_set.h"
#include "support/card_fixture.h"
#include "support/test_support.h"

namespace {

int64_t FileSize(const std::string &path, int64_t *allocated = nullptr) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return -1;
    if (allocated != nullptr) *allocated = static_cast<int64_t>(info.st_blocks) * 512;
    return info.st_size;
}

int Preallocate(const std::string &dir, uint32_t media, uint32_t pictures, std::string *messages = nullptr) {
    testing::internal::CaptureStderr();
    int result = CardPreallocate(dir.c_str(), media, pictures);
    std::string captured = testing::internal::GetCapturedStderr();
    if (messages != nullptr) *messages = captured;
    return result;
}

}  // namespace

TEST(CardPreallocateTest, CreatesTheSetSparseAndKeepsWhatIsThere) {
    TempDir dir;
    MakeSparseFile(dir.File("hi000001.mp4"), 0x10000000);
    WriteFileAt(dir.File("hi000001.mp4"), 4096, "recorded");
    ASSERT_EQ(Preallocate(dir.path(), 3, 1), 0);
    CardFile file;
    int64_t allocated = 0;
    for (uint32_t position = 0; CardFileAt(position, 1, 3, &file) == 0; ++position) {
        int64_t blocks = 0;
        EXPECT_EQ(FileSize(dir.File(file.m_szLongName), &blocks), file.m_u32Size) << file.m_szLongName;
        allocated += blocks;
    }
    EXPECT_LT(allocated, 1 << 20) << "the files must stay sparse";
    EXPECT_EQ(ReadFileAt(dir.File("hi000001.mp4"), 4096, 8), "recorded");
    EXPECT_EQ(FileSize(dir.File("hi000003.mp4")), -1);
    // Running again over the finished set changes nothing.
    EXPECT_EQ(Preallocate(dir.path() + "/", 3, 1), 0);
    EXPECT_EQ(ReadFileAt(dir.File("hi000001.mp4"), 4096, 8), "recorded");
}

TEST(CardPreallocateTest, RefusesBeforeCreatingAnything) {
    TempDir dir;
    MakeSparseFile(dir.File("index001.bin"), 1000);
    std::string messages;
    EXPECT_EQ(Preallocate(dir.path(), 2, 0, &messages), -1);
    EXPECT_NE(messages.find("index001.bin' is in the way: 1000 bytes, 67108864 expected"), std::string::npos);
    EXPECT_EQ(FileSize(dir.File("hi000000.mp4")), -1);

    EXPECT_EQ(Preallocate(dir.path(), kCardMaxMediaFiles + 1, 0, &messages), -1);
    EXPECT_NE(messages.find("describes at most 2040"), std::string::npos);
    EXPECT_EQ(Preallocate(dir.File("missing"), 1, 0), -1);
}
