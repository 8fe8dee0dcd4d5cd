#include "tools/file_utils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "common/log.h"
#include "support/test_support.h"

namespace {

bool IsDir(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST(FileUtilsTest, CreateAndDeleteTrees) {
    TempDir dir;
    // The last component is made only with a trailing '/'.
    ASSERT_EQ(FileUtilsCreateMultiFolder((dir.path() + "/a/b/c").c_str()), 0);
    EXPECT_TRUE(IsDir(dir.File("a/b")));
    EXPECT_FALSE(IsDir(dir.File("a/b/c")));
    ASSERT_EQ(FileUtilsCreateMultiFolder((dir.path() + "/a/b/c/").c_str()), 0);
    EXPECT_TRUE(IsDir(dir.File("a/b/c")));
    struct stat st;
    ASSERT_EQ(stat(dir.File("a/b/c").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777 & ~0022u, 0755u & ~0022u);

    WriteWholeFile(dir.File("a/b/c/file"), "x");
    WriteWholeFile(dir.File("outside"), "keep");
    ASSERT_EQ(symlink(dir.File("outside").c_str(), dir.File("a/link").c_str()), 0);
    ASSERT_EQ(symlink(dir.path().c_str(), dir.File("a/b/dirlink").c_str()), 0);
    LogEnable("test", 0);
    testing::internal::CaptureStderr();
    ASSERT_EQ(FileUtilsDeleteFolder(dir.File("a").c_str()), 0);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(access(dir.File("a").c_str(), F_OK), 0);
    EXPECT_EQ(ReadWholeFile(dir.File("outside")), "keep");  // links removed, never followed
    // Every entry's line names the delete, not its per-entry helper.
    EXPECT_NE(log.find("/a/b is dir"), std::string::npos) << log;
    EXPECT_NE(log.find("/a/link is file"), std::string::npos) << log;
    EXPECT_TRUE(LogNamesFunction(log, "FileUtilsDeleteFolder")) << log;
    EXPECT_FALSE(LogNamesFunction(log, "DeleteEntry")) << log;
}

TEST(FileUtilsTest, SmallHelpers) {
    TempDir dir;
    std::string file = dir.File("f.bin");
    EXPECT_EQ(FileUtilsCreateFile(file.c_str()), 0);
    EXPECT_EQ(FileUtilsIsFolder(file.c_str()), 1);
    EXPECT_EQ(FileUtilsIsFolder(dir.path().c_str()), 0);
    EXPECT_FALSE(FileUtilsIsEmptyFolder(dir.path().c_str()));
    MakeDirectories(dir.File("empty"));
    EXPECT_TRUE(FileUtilsIsEmptyFolder(dir.File("empty").c_str()));
    uint32_t total = 0, free = 0, used = 0;
    EXPECT_EQ(FileUtilsGetStorageInfo(dir.path().c_str(), &total, &free, &used), 0);
    EXPECT_GT(total, 0u);
    EXPECT_EQ(used, total - free);
}

// Error paths.
TEST(FileUtilsTest, Refusals) {
    TempDir dir;
    WriteWholeFile(dir.File("plain"), "");
    EXPECT_EQ(FileUtilsCreateMultiFolder((dir.path() + "/plain/sub/").c_str()), -1);
    EXPECT_EQ(FileUtilsCreateMultiFolder(nullptr), -1);
    EXPECT_EQ(FileUtilsDeleteFolder(dir.File("missing").c_str()), -1);
    EXPECT_EQ(FileUtilsDeleteFolder(nullptr), -1);
    // A child path too long to build is refused, and nothing is removed.
    std::string deep = dir.File("d");
    while (deep.size() < 300) deep += "/0123456789";
    ASSERT_EQ(FileUtilsCreateMultiFolder((deep + "/").c_str()), 0);
    EXPECT_EQ(FileUtilsDeleteFolder(dir.File("d").c_str()), -1);
    EXPECT_TRUE(IsDir(deep));

    EXPECT_EQ(FileUtilsCreateFile(dir.File("missing/f").c_str()), -1);
    EXPECT_EQ(FileUtilsCreateFile(nullptr), -1);
    EXPECT_EQ(FileUtilsIsExist(nullptr), -1);
    EXPECT_EQ(FileUtilsIsFolder(dir.File("missing").c_str()), -1);
    EXPECT_FALSE(FileUtilsIsEmptyFolder(dir.File("plain").c_str()));
    EXPECT_EQ(FileUtilsGetFileSize(dir.File("missing").c_str()), 0u);
}

}  // namespace
