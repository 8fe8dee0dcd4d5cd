#include "avrecord_lib/record_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/faulty_file_io.h"
#include "support/test_support.h"

namespace {

class RecordFileTest : public testing::Test {
protected:
    std::string Path(const char *name) const { return dir_.File(name); }
    // Opens a file holding `content` read-write.
    int OpenWith(const std::string &content) {
        WriteWholeFile(Path("data"), content);
        return AVFileOpen(Path("data").c_str(), kAVFileModeReadWrite);
    }
    TempDir dir_;
};

TEST_F(RecordFileTest, OpenModesSelectAccessAndCreation) {
    EXPECT_EQ(AVFileOpen(Path("missing").c_str(), 1), -1);  // read-only never creates
    EXPECT_NE(access(Path("missing").c_str(), F_OK), 0);
    int fd = AVFileOpen(Path("created").c_str(), 3);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(AVFileWrite(fd, "abc", 3), 3);
    EXPECT_EQ(AVFileClose(fd), 0);

    char buf[3];
    fd = AVFileOpen(Path("created").c_str(), 0);
    EXPECT_EQ(AVFileWrite(fd, "x", 1), -1);
    EXPECT_EQ(AVFileRead(fd, buf, 3), 3);
    AVFileClose(fd);
    fd = AVFileOpen(Path("writeonly").c_str(), 2 | 4);  // only the two low bits count
    EXPECT_EQ(AVFileRead(fd, buf, 1), -1);
    EXPECT_EQ(AV_RecordStreamFileClose(fd), 0);
    EXPECT_EQ(AV_RecordStreamFileClose(fd), -1);  // closing twice fails harmlessly
}

TEST_F(RecordFileTest, SeekAcceptsOnlyKnownWhence) {
    int fd = OpenWith(std::string(100, 'a'));
    EXPECT_EQ(AVFileSeek(fd, 10, kAVFileSeekSet), 10);
    EXPECT_EQ(AVFileSeek(fd, 5, kAVFileSeekCur), 15);
    EXPECT_EQ(AVFileSeek(fd, 50, 3), -1);
    EXPECT_EQ(AVFileSeek(fd, 0, kAVFileSeekCur), 15);  // the refused seek did not move
    EXPECT_EQ(AVFileSeek(fd, -10, kAVFileSeekEnd), 90);
    EXPECT_EQ(AVFileSeek(-1, 0, kAVFileSeekSet), -1);
    AVFileClose(fd);
}

TEST_F(RecordFileTest, ExactReadsAndTheOffsetResult) {
    std::string content(8192, '\0');
    content.replace(4096, 4, "PACK");
    int fd = OpenWith(content);
    char buf[100];
    EXPECT_EQ(AV_RecordStreamInfoRead(fd, 4096, buf, 4), 4096);
    EXPECT_EQ(std::string(buf, 4), "PACK");
    EXPECT_EQ(AV_RecordStreamInfoRead(fd, 4096, buf, 100), 4096);
    EXPECT_EQ(AV_RecordStreamInfoRead(fd, 8150, buf, 100), -1);  // reaches the end first
    AVFileSeek(fd, 8190, kAVFileSeekSet);
    EXPECT_EQ(AVFileRead(fd, buf, 3), -1);
    EXPECT_EQ(AVFileRead(fd, nullptr, 1), -1);
    EXPECT_EQ(AV_RecordStreamInfoRead(-1, 0, buf, 1), -1);
    AVFileClose(fd);
}

// The fault seam: each kind of fault reaches the callers as -1.
TEST_F(RecordFileTest, InjectedReadWriteSeekFailures) {
    int fd = OpenWith(std::string(64, 'a'));
    char buf[8];
    FaultyFileIo faults;
    faults.FailNth(FaultyFileIo::Op::kRead, 2);
    EXPECT_EQ(AVFileRead(fd, buf, 8), 8);
    EXPECT_EQ(AVFileRead(fd, buf, 8), -1);
    EXPECT_EQ(AVFileRead(fd, buf, 8), 8);  // once only

    faults.FailNth(FaultyFileIo::Op::kWrite, 1, true, ENOSPC);
    EXPECT_EQ(AVFileWrite(fd, buf, 8), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(AVFileWrite(fd, buf, 8), -1);  // and from then on

    faults.FailNth(FaultyFileIo::Op::kSeek, 1);
    EXPECT_EQ(AV_RecordStreamInfoRead(fd, 8, buf, 8), -1);
    EXPECT_EQ(AV_RecordStreamInfoRead(fd, 8, buf, 8), 8);
    AVFileClose(fd);
}

TEST_F(RecordFileTest, InjectedShortWriteAndFullDevice) {
    int fd = OpenWith("");
    FaultyFileIo faults;
    faults.ShortWriteNth(2, 3);
    EXPECT_EQ(AVFileWrite(fd, "12345678", 8), 8);
    EXPECT_EQ(AVFileWrite(fd, "abcdefgh", 8), -1);  // only "abc" reached the file

    faults.NoSpaceAfter(5);
    EXPECT_EQ(AVFileWrite(fd, "xy", 2), 2);
    EXPECT_EQ(AVFileWrite(fd, "zzzzz", 5), -1);  // partial: 3 bytes fit
    EXPECT_EQ(AVFileWrite(fd, "q", 1), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(ReadWholeFile(Path("data")), "12345678abcxyzzz");
    AVFileClose(fd);
}

TEST_F(RecordFileTest, WriteLogReplaysUpToAnyWrite) {
    FaultyFileIo faults;
    faults.LogWrites();
    int fd = AVFileOpen(Path("data").c_str(), kAVFileModeReadWrite);
    AV_RecordStreamInfoWrite(fd, 100, "first", 5);
    AV_RecordStreamInfoWrite(fd, 10, "second", 6);
    AV_RecordStreamInfoWrite(fd, 102, "XX", 2);
    AVFileClose(fd);
    const auto &log = faults.writeLog();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[1].path, Path("data"));
    EXPECT_EQ(log[1].offset, 10);

    auto toCopy = [&](const std::string &) { return Path("replay"); };
    ReplayWriteLog(log, 2, toCopy);
    std::string partial = ReadWholeFile(Path("replay"));
    EXPECT_EQ(partial.substr(100), "first");
    EXPECT_EQ(partial.substr(10, 6), "second");
    ReplayWriteLog(log, 3, toCopy);
    EXPECT_EQ(ReadWholeFile(Path("replay")), ReadWholeFile(Path("data")));
}

}  // namespace
