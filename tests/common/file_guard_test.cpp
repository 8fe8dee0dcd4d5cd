#include "common/file_guard.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// A file table that only records which descriptors were closed.
std::vector<int> g_closed;
int RecordClose(int fd) {
    g_closed.push_back(fd);
    return 0;
}
FileIoOps RecordingTable() {
    FileIoOps ops = PosixFileIo();
    ops.close = RecordClose;
    return ops;
}

class FileGuardTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_closed.clear();
        SetFileIo(&table_);
    }
    void TearDown() override { SetFileIo(nullptr); }
    FileIoOps table_ = RecordingTable();
};

TEST_F(FileGuardTest, EachDescriptorIsClosedOnceWhereverItMoves) {
    {
        FileGuard first(7);
        FileGuard moved(std::move(first));
        FileGuard assigned(9);
        assigned = std::move(moved);  // closes 9, takes 7
        FileGuard nothing;
        EXPECT_EQ(first.fd(), -1);
        EXPECT_EQ(assigned.fd(), 7);
    }
    EXPECT_EQ(g_closed, (std::vector<int>{9, 7}));
}

TEST_F(FileGuardTest, ReleasedOrClosedDescriptorsAreNotClosedAgain) {
    {
        FileGuard released(5);
        EXPECT_EQ(released.Release(), 5);
        FileGuard closed(6);
        EXPECT_EQ(closed.Close(), 0);
        EXPECT_FALSE(closed.ok());
    }
    EXPECT_EQ(g_closed, (std::vector<int>{6}));
}

TEST_F(FileGuardTest, AGivenTableClosesWhatItOpenedWhileAnotherIsInstalled) {
    FileIoOps own = RecordingTable();
    own.close = [](int) { return -1; };  // tells the two tables apart
    FileGuard theirs(3, &own);
    FileGuard ours(4);
    EXPECT_EQ(theirs.Close(), -1);
    EXPECT_EQ(ours.Close(), 0);
    EXPECT_EQ(g_closed, (std::vector<int>{4}));
}

}  // namespace
