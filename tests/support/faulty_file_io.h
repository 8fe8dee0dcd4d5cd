// Fault injection under the FileIo() layer. While a FaultyFileIo lives it is
// the table in force: it passes every call to the POSIX table and fails or
// shortens the ones it was told to, and it can keep a log of every write
// (path, offset, bytes) that a crash test replays up to any write.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct FileIoOps;

struct WriteLogEntry {
    std::string path;  // path the descriptor was opened with
    int64_t offset;    // file position of the first byte
    std::string data;  // bytes that reached the file
};

// A flush of a file's data (fdatasync) and where it fell among the writes.
struct SyncLogEntry {
    std::string path;     // path the descriptor was opened with
    size_t writesBefore;  // write-log entries made before it
};

class FaultyFileIo {
public:
    enum class Op { kRead, kWrite, kSeek };

    FaultyFileIo();   // installs itself with SetFileIo
    ~FaultyFileIo();  // restores the POSIX table
    FaultyFileIo(const FaultyFileIo &) = delete;
    FaultyFileIo &operator=(const FaultyFileIo &) = delete;

    // The n-th call (1-based, counted from now on) of op fails with err; with
    // fromThenOn every later call fails too.
    void FailNth(Op op, int n, bool fromThenOn = false, int err = EIO);
    // The n-th write transfers only its first `keep` bytes.
    void ShortWriteNth(int n, size_t keep);
    // The device fills up after `bytes` more bytes: the write that crosses
    // the limit is partial, every later one fails with ENOSPC.
    void NoSpaceAfter(uint64_t bytes);
    // Starts keeping the write log (and the log of data flushes).
    void LogWrites() { logWrites_ = true; }

    const std::vector<WriteLogEntry> &writeLog() const { return writeLog_; }
    const std::vector<SyncLogEntry> &syncLog() const { return syncLog_; }
    int calls(Op op) const { return calls_[static_cast<int>(op)]; }

private:
    struct Failure {
        int n = 0;
        bool fromThenOn = false;
        int err = 0;
    };
    static FaultyFileIo *active_;
    static int Open(const char *path, int flags, mode_t mode);
    static int Close(int fd);
    static int64_t Seek(int fd, int64_t offset, int whence);
    static ssize_t Read(int fd, void *buf, size_t length);
    static ssize_t Write(int fd, const void *buf, size_t length);
    static int DataSync(int fd);
    std::string PathOf(int fd) const;
    // Counts the call; true (errno set) when it is to fail.
    bool Fails(Op op);

    static const FileIoOps kOps;
    Failure failures_[3];
    int calls_[3] = {0, 0, 0};
    int shortWriteN_ = 0;
    size_t shortWriteKeep_ = 0;
    bool spaceLimited_ = false;
    uint64_t spaceLeft_ = 0;
    bool logWrites_ = false;
    std::map<int, std::string> paths_;
    std::vector<WriteLogEntry> writeLog_;
    std::vector<SyncLogEntry> syncLog_;
};

// Applies the first `count` writes of a log to the files; mapPath turns a
// logged path into the file to write (identity when empty).
void ReplayWriteLog(const std::vector<WriteLogEntry> &log, size_t count,
                    const std::function<std::string(const std::string &)> &mapPath = {});
