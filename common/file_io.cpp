#include "common/file_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

int PosixOpen(const char *path, int flags, mode_t mode) { return ::open(path, flags, mode); }
int PosixClose(int fd) { return ::close(fd); }
int64_t PosixSeek(int fd, int64_t offset, int whence) {
    return ::lseek(fd, static_cast<off_t>(offset), whence);
}
ssize_t PosixRead(int fd, void *buf, size_t length) { return ::read(fd, buf, length); }
ssize_t PosixWrite(int fd, const void *buf, size_t length) { return ::write(fd, buf, length); }
int PosixFsync(int fd) { return ::fsync(fd); }
int PosixFdatasync(int fd) { return ::fdatasync(fd); }
int PosixSetCloseOnExec(int fd) {
    int flags = ::fcntl(fd, F_GETFD);
    if (flags < 0) return -1;
    return ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

int PosixRename(const char *from, const char *to) { return ::rename(from, to); }
int PosixDropCache(int fd) { return ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED) == 0 ? 0 : -1; }

const FileIoOps kPosixFileIo = {PosixOpen,  PosixClose,     PosixSeek,           PosixRead,   PosixWrite,
                                PosixFsync, PosixFdatasync, PosixSetCloseOnExec, PosixRename, PosixDropCache};
const FileIoOps *g_fileIo = &kPosixFileIo;

}  // namespace

const FileIoOps &FileIo() { return *g_fileIo; }
const FileIoOps &PosixFileIo() { return kPosixFileIo; }
void SetFileIo(const FileIoOps *ops) { g_fileIo = ops != nullptr ? ops : &kPosixFileIo; }

int64_t FileSeekTarget(int64_t position, int64_t size, int64_t offset, int whence) {
    int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? position : whence == SEEK_END ? size : -1;
    if (base < 0 || offset < -base) {
        errno = EINVAL;
        return -1;
    }
    return base + offset;
}
