// One owner for one descriptor of the file layer: closes it on every way
// out of a scope. It cannot be copied (a copy would close twice); it can be
// moved.
#pragma once

#include "common/file_io.h"

class FileGuard {
public:
    // fd < 0 owns nothing. Without a table the one in force when it closes
    // is used (the card's own descriptors); with one, that table (a file
    // opened from it while another is installed).
    explicit FileGuard(int fd = -1, const FileIoOps *ops = nullptr) noexcept : fd_(fd), ops_(ops) {}
    ~FileGuard() { Close(); }
    FileGuard(const FileGuard &) = delete;
    FileGuard &operator=(const FileGuard &) = delete;
    FileGuard(FileGuard &&other) noexcept : fd_(other.Release()), ops_(other.ops_) {}
    FileGuard &operator=(FileGuard &&other) noexcept;

    int fd() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    // Gives the descriptor up without closing it.
    int Release();
    // Closes now: the table's result, 0 when it owned nothing.
    int Close();

private:
    int fd_;
    const FileIoOps *ops_;
};
