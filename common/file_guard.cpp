#include "common/file_guard.h"

FileGuard &FileGuard::operator=(FileGuard &&other) noexcept {
    if (this != &other) {
        Close();
        ops_ = other.ops_;
        fd_ = other.Release();
    }
    return *this;
}

int FileGuard::Release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
}

int FileGuard::Close() {
    if (fd_ < 0) return 0;
    const FileIoOps &ops = ops_ != nullptr ? *ops_ : FileIo();
    return ops.close(Release());
}
