#include "tools/seek_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/card_time.h"
#include "common/log.h"
#include "support/test_helpers.h"
#include "support/test_support.h"

namespace {

std::string NameAt(uint32_t seconds) {
    DateTime t = LocalDateTime(seconds);
    char name[64];
    snprintf(name, sizeof(name), "%04d-%02d-%02d-%02d-%02d-%02d.mp4", t.year, t.month, t.day, t.hour,
             t.minute, t.second);
    return name;
}

std::set<std::string> Names(const FileListInfo &list) {
    std::set<std::string> names;
    for (int i = 0; i < list.s32FileNum; ++i) names.insert(list.stFileList[i].szFileName);
    return names;
}

// A tree root/YYYY-MM-DD/HH/<time name> holding files at the given times.
class RecordingTree {
public:
    void Add(uint32_t seconds, const std::string &content = "data") {
        DateTime t = UtcDateTime(seconds);
        char sub[32];
        snprintf(sub, sizeof(sub), "/%04d-%02d-%02d/%02d", t.year, t.month, t.day, t.hour);
        MakeDirectories(dir_.path() + sub);
        WriteWholeFile(dir_.path() + sub + "/" + NameAt(seconds), content);
    }
    const std::string &root() const { return dir_.path(); }

private:
    TempDir dir_;
};

TEST(SeekFolderTest, SeekFileExRanges) {
    ScopedZone zone("UTC0");
    RecordingTree tree;
    uint32_t start = Local(10, 10, 5);
    tree.Add(start - 9, "12345");  // within the tolerance
    tree.Add(start - 10);
    tree.Add(start + 600);
    tree.Add(Local(10, 11, 59, 59));
    tree.Add(Local(10, 12, 0, 1));  // after the end
    tree.Add(Local(10, 12, 30));    // an hour directory past the end's hour
    auto list = std::make_unique<FileListInfo>();
    ASSERT_EQ(SeekFileEx(tree.root().c_str(), start, Local(10, 12), list.get()), 0);
    EXPECT_EQ(Names(*list),
              (std::set<std::string>{NameAt(start - 9), NameAt(start + 600), NameAt(Local(10, 11, 59, 59))}));
    for (int i = 0; i < list->s32FileNum; ++i) {
        const FileListEntry &e = list->stFileList[i];
        EXPECT_EQ(e.u32EndTime, e.u32StartTime + kFolderFileDuration);
        if (e.u32StartTime == start - 9) {
            EXPECT_EQ(e.u32FileSize, 5u);
        }
    }

    // Across midnight only the start day is searched, over the hour numbers
    // of start and end: day 10's hours 01..02, nothing of day 11.
    tree.Add(Local(10, 1, 40));
    tree.Add(Local(10, 5));
    tree.Add(Local(11, 1));
    ASSERT_EQ(SeekFileEx(tree.root().c_str(), Local(10, 1, 30), Local(11, 2), list.get()), 0);
    EXPECT_EQ(Names(*list), std::set<std::string>{NameAt(Local(10, 1, 40))});
    // An end hour below the start hour searches nothing.
    ASSERT_EQ(SeekFileEx(tree.root().c_str(), Local(10, 10), Local(11, 3), list.get()), 0);
    EXPECT_EQ(list->s32FileNum, 0);
}

TEST(SeekFolderTest, CurrentFolderFileCountAndBound) {
    ScopedZone zone("UTC0");
    TempDir dir;
    MakeDirectories(dir.File("2026-03-10-10-00-01.dir"));  // directories are not listed
    WriteWholeFile(dir.File("notes.txt"), "");             // no time in the name
    for (int i = 0; i < 5; ++i) WriteWholeFile(dir.File(NameAt(Local(10, 10, 0, i))), "");
    auto list = std::make_unique<FileListInfo>();
    int count = MAX_FILE_NUMBER - 3;
    ASSERT_EQ(SeekCurrentFolderFile(dir.path().c_str(), Local(10, 10), Local(10, 11), list.get(), &count), 0);
    EXPECT_EQ(count, MAX_FILE_NUMBER);
    EXPECT_EQ(list->s32FileNum, MAX_FILE_NUMBER);

    count = 1;
    ASSERT_EQ(SeekCurrentFolderFile(dir.path().c_str(), Local(10, 10), Local(10, 11), list.get(), &count), 0);
    EXPECT_EQ(count, 6);
}

// A folder's file list holds MAX_FILE_NUMBER files at most; the line that
// says so names the listing function.
TEST(SeekFolderTest, FileListStopsAtItsBound) {
    TempDir dir;
    for (int i = 0; i <= MAX_FILE_NUMBER; ++i) WriteWholeFile(dir.File(std::to_string(i)), "");
    auto list = std::make_unique<FileListInfo>();
    LogEnable("test", 0);
    testing::internal::CaptureStderr();
    ASSERT_EQ(FileUtilsCurrentFolderFileSeek(dir.path().c_str(), list.get()), 0);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(list->s32FileNum, MAX_FILE_NUMBER);
    EXPECT_NE(log.find("file number more than MAX_FILE_NUMBER"), std::string::npos) << log;
    EXPECT_TRUE(LogNamesFunction(log, "FileUtilsCurrentFolderFileSeek")) << log;
    EXPECT_FALSE(LogNamesFunction(log, "ListFolder")) << log;
}

TEST(SeekFolderTest, DirectoryListings) {
    ScopedZone zone("UTC0");
    TempDir dir;
    WriteWholeFile(dir.File("2026-03-10-10-00-05.mp4"), "");
    WriteWholeFile(dir.File("90"), "");
    MakeDirectories(dir.File("2026-03-11-00-00-00"));
    MakeDirectories(dir.File("sub/deeper"));
    WriteWholeFile(dir.File("sub/deeper/x"), "");
    auto list = std::make_unique<FileListInfo>();

    ASSERT_EQ(FileUtilsCurrentFolderFileSeek(dir.path().c_str(), list.get()), 0);
    ASSERT_EQ(list->s32FileNum, 2);
    std::vector<std::pair<std::string, uint32_t>> files;
    for (int i = 0; i < 2; ++i)
        files.emplace_back(list->stFileList[i].szFileName, list->stFileList[i].u32StartTime);
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files[0], std::make_pair(std::string("2026-03-10-10-00-05.mp4"), Local(10, 10, 0, 5)));
    EXPECT_EQ(files[1], std::make_pair(std::string("90"), 5400u));  // all digits: minutes

    ASSERT_EQ(FileUtilsCurrentFolderSubFolderSeek(dir.path().c_str(), list.get()), 0);
    EXPECT_EQ(Names(*list), (std::set<std::string>{dir.File("2026-03-11-00-00-00"), dir.File("sub")}));

    // The walk: every entry below dir, entries of dir itself counted.
    static std::vector<std::string> seen;
    seen.clear();
    auto visitor = [](const char *where, const char *name) {
        seen.push_back(std::string(where) + "/" + name);
        return 0;
    };
    EXPECT_EQ(SeekFolder(dir.path().c_str(), 0, visitor), 4);
    EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()),
              (std::set<std::string>{dir.File("2026-03-10-10-00-05.mp4"), dir.File("90"),
                                     dir.File("2026-03-11-00-00-00"), dir.File("sub"), dir.File("sub/deeper"),
                                     dir.File("sub/deeper/x")}));
    auto stopper = [](const char *, const char *name) { return std::string(name) == "x" ? -1 : 0; };
    EXPECT_EQ(SeekFolder(dir.path().c_str(), 0, stopper), -1);
}

// The listings and the walk look at entries relative to the directory they
// opened instead of changing into it: the working directory is the whole
// process's, and a relative path given by one thread must not move under
// another.
TEST(SeekFolderTest, FolderUtilitiesKeepTheWorkingDirectory) {
    TempDir dir;
    MakeDirectories(dir.File("day/10"));
    WriteWholeFile(dir.File("day/10/90"), "");
    char before[4096];
    ASSERT_NE(getcwd(before, sizeof before), nullptr);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    auto list = std::make_unique<FileListInfo>();
    EXPECT_EQ(FileUtilsCurrentFolderFileSeek("day/10", list.get()), 0);
    EXPECT_EQ(FileUtilsCurrentFolderSubFolderSeek("day", list.get()), 0);
    EXPECT_EQ(Names(*list), std::set<std::string>{"day/10"});
    EXPECT_EQ(SeekFolder("day", 0, nullptr), 1);
    char after[4096];
    EXPECT_STREQ(getcwd(after, sizeof after), dir.path().c_str());
    ASSERT_EQ(chdir(before), 0);
}

TEST(SeekFolderTest, NameTimes) {
    ScopedZone zone("XST-2");
    EXPECT_EQ(FileUtilsGetFileLastModifyTime("2026-03-10-10-00-05.mp4"), Local(10, 10, 0, 5));
    EXPECT_EQ(FileUtilsGetFileLastModifyTime("0"), 0u);
    EXPECT_EQ(FileUtilsGetFileLastModifyTime("1440"), 86400u);
    EXPECT_EQ(FileUtilsGetFileLastModifyTime("12a"), 0u);
    EXPECT_EQ(FileUtilsGetFileLastModifyTime("a-b-c"), 0u);
    EXPECT_EQ(FileUtilsGetFileLastModifyTime(nullptr), 0u);
}

// Error paths.
TEST(SeekFolderTest, Refusals) {
    auto list = std::make_unique<FileListInfo>();
    int count = 0;
    EXPECT_EQ(SeekFileEx(nullptr, 0, 1, list.get()), -1);
    EXPECT_EQ(SeekFileEx("/", 0, 1, nullptr), -1);
    EXPECT_EQ(SeekFileEx("/nonexistent-root", 0, 1, list.get()), 0);
    EXPECT_EQ(list->s32FileNum, 0);
    EXPECT_EQ(SeekCurrentFolderFile("/nonexistent", 0, 1, list.get(), &count), -1);
    EXPECT_EQ(SeekCurrentFolderFile("/", 0, 1, list.get(), nullptr), -1);
    EXPECT_EQ(FileUtilsCurrentFolderFileSeek("/nonexistent", list.get()), -1);
    EXPECT_EQ(FileUtilsCurrentFolderSubFolderSeek("/nonexistent", list.get()), -1);
    EXPECT_EQ(SeekFolder("/nonexistent", 0, nullptr), -1);
}

}  // namespace

// A file named in the card's last seconds ends at its last second, not
// wrapped to 1970.
TEST(SeekFolderTest, FileEndStopsAtTheCardsLastSecond) {
    ScopedZone zone("UTC0");
    RecordingTree tree;
    uint32_t named = kCardTimeLast - kFolderFileDuration / 2;
    tree.Add(named);
    auto list = std::make_unique<FileListInfo>();
    ASSERT_EQ(SeekFileEx(tree.root().c_str(), named - 5, kCardTimeLast, list.get()), 0);
    ASSERT_EQ(list->s32FileNum, 1);
    EXPECT_EQ(list->stFileList[0].u32EndTime, kCardTimeLast);
}
