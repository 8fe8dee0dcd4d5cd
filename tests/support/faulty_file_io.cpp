#include "support/faulty_file_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "common/file_io.h"

FaultyFileIo *FaultyFileIo::active_ = nullptr;

const FileIoOps FaultyFileIo::kOps = {
    FaultyFileIo::Open,
    FaultyFileIo::Close,
    FaultyFileIo::Seek,
    FaultyFileIo::Read,
    FaultyFileIo::Write,
    [](int fd) { return PosixFileIo().fsync(fd); },
    FaultyFileIo::DataSync,
    [](int fd) { return PosixFileIo().setCloseOnExec(fd); },
    [](const char *from, const char *to) { return PosixFileIo().rename(from, to); },
    [](int fd) { return PosixFileIo().dropCache(fd); }};

FaultyFileIo::FaultyFileIo() {
    active_ = this;
    SetFileIo(&kOps);
}

FaultyFileIo::~FaultyFileIo() {
    SetFileIo(nullptr);
    active_ = nullptr;
}

void FaultyFileIo::FailNth(Op op, int n, bool fromThenOn, int err) {
    failures_[static_cast<int>(op)] = Failure{calls_[static_cast<int>(op)] + n, fromThenOn, err};
}

void FaultyFileIo::ShortWriteNth(int n, size_t keep) {
    shortWriteN_ = calls_[static_cast<int>(Op::kWrite)] + n;
    shortWriteKeep_ = keep;
}

void FaultyFileIo::NoSpaceAfter(uint64_t bytes) {
    spaceLimited_ = true;
    spaceLeft_ = bytes;
}

bool FaultyFileIo::Fails(Op op) {
    int call = ++calls_[static_cast<int>(op)];
    const Failure &failure = failures_[static_cast<int>(op)];
    if (failure.n == 0) return false;
    if (call == failure.n || (failure.fromThenOn && call > failure.n)) {
        errno = failure.err;
        return true;
    }
    return false;
}

int FaultyFileIo::Open(const char *path, int flags, mode_t mode) {
    int fd = PosixFileIo().open(path, flags, mode);
    if (fd >= 0) active_->paths_[fd] = path;
    return fd;
}

int FaultyFileIo::Close(int fd) {
    active_->paths_.erase(fd);
    return PosixFileIo().close(fd);
}

int64_t FaultyFileIo::Seek(int fd, int64_t offset, int whence) {
    if (active_->Fails(Op::kSeek)) return -1;
    return PosixFileIo().seek(fd, offset, whence);
}

ssize_t FaultyFileIo::Read(int fd, void *buf, size_t length) {
    if (active_->Fails(Op::kRead)) return -1;
    return PosixFileIo().read(fd, buf, length);
}

ssize_t FaultyFileIo::Write(int fd, const void *buf, size_t length) {
    FaultyFileIo &self = *active_;
    if (self.Fails(Op::kWrite)) return -1;
    size_t allowed = length;
    if (self.calls_[static_cast<int>(Op::kWrite)] == self.shortWriteN_)
        allowed = std::min(allowed, self.shortWriteKeep_);
    if (self.spaceLimited_) {
        if (self.spaceLeft_ == 0 && length > 0) {
            errno = ENOSPC;
            return -1;
        }
        allowed = static_cast<size_t>(std::min<uint64_t>(allowed, self.spaceLeft_));
    }
    int64_t offset = PosixFileIo().seek(fd, 0, SEEK_CUR);
    ssize_t written = PosixFileIo().write(fd, buf, allowed);
    if (written <= 0) return written;
    if (self.spaceLimited_) self.spaceLeft_ -= static_cast<uint64_t>(written);
    if (self.logWrites_) {
        self.writeLog_.push_back(
            WriteLogEntry{self.PathOf(fd), offset, std::string(static_cast<const char *>(buf), written)});
    }
    return written;
}

int FaultyFileIo::DataSync(int fd) {
    FaultyFileIo &self = *active_;
    if (self.logWrites_) self.syncLog_.push_back(SyncLogEntry{self.PathOf(fd), self.writeLog_.size()});
    return PosixFileIo().fdatasync(fd);
}

std::string FaultyFileIo::PathOf(int fd) const {
    auto path = paths_.find(fd);
    return path != paths_.end() ? path->second : std::string();
}

void ReplayWriteLog(const std::vector<WriteLogEntry> &log, size_t count,
                    const std::function<std::string(const std::string &)> &mapPath) {
    for (size_t i = 0; i < count && i < log.size(); ++i) {
        const WriteLogEntry &entry = log[i];
        std::string path = mapPath ? mapPath(entry.path) : entry.path;
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0666);
        if (fd < 0) throw std::runtime_error("replay: cannot open " + path);
        ssize_t written = ::pwrite(fd, entry.data.data(), entry.data.size(), entry.offset);
        ::close(fd);
        if (written != static_cast<ssize_t>(entry.data.size()))
            throw std::runtime_error("replay: short write " + path);
    }
}
