#include "common/file_io.h"

#include <fcntl.h>
#include <unistd.h>

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

const FileIoOps kPosixFileIo = {PosixOpen,  PosixClose, PosixSeek,      PosixRead,
                                PosixWrite, PosixFsync, PosixFdatasync, PosixSetCloseOnExec};
const FileIoOps *g_fileIo = &kPosixFileIo;

}  // namespace

const FileIoOps &FileIo() { return *g_fileIo; }
const FileIoOps &PosixFileIo() { return kPosixFileIo; }
void SetFileIo(const FileIoOps *ops) { g_fileIo = ops != nullptr ? ops : &kPosixFileIo; }
