#include "mkfs/mkfs_io.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/file_io.h"
#include "mkfs/fat32_layout.h"

namespace {

// Keeps errno for the caller: a busy device is told apart by EBUSY.
void PrintErrno(const char *message) {
    int error = errno;
    fprintf(stderr, "%s: %s\n", message, strerror(error));
    errno = error;
}

void QueryBlockDevice(MkfsDevice *device) {
    int sectorSize = 0;
    if (ioctl(device->fd, BLKSSZGET, &sectorSize) == 0 && sectorSize > static_cast<int>(kDefaultSectorSize)) {
        device->sectorSize = static_cast<uint32_t>(sectorSize);
        fprintf(stderr, "for this device sector size is %u\n", device->sectorSize);
    }
    uint64_t bytes = 0;
    if (ioctl(device->fd, BLKGETSIZE64, &bytes) == 0) device->bytes = bytes;
    struct hd_geometry geometry {};
    if (ioctl(device->fd, HDIO_GETGEO, &geometry) == 0) {
        device->heads = geometry.heads;
        device->sectorsPerTrack = geometry.sectors;
    }
}

}  // namespace

int MkfsOpenDevice(const char *path, MkfsDevice *device) {
    *device = MkfsDevice{-1, false, 0, kDefaultSectorSize, 0, 0};
    struct stat info {};
    if (stat(path, &info) != 0) {
        char message[512];
        snprintf(message, sizeof message, "can't open '%s'", path);
        PrintErrno(message);
        return -1;
    }
    if (!S_ISBLK(info.st_mode) && !S_ISREG(info.st_mode)) {
        fprintf(stderr, "image size must be specified\n");
        return -1;
    }
    device->isBlockDevice = S_ISBLK(info.st_mode);
    device->fd = FileIo().open(path, O_RDWR | (device->isBlockDevice ? O_EXCL : 0), 0);
    if (device->fd < 0) {
        char message[512];
        snprintf(message, sizeof message, "can't open '%s'", path);
        PrintErrno(message);
        return -1;
    }
    if (device->isBlockDevice) {
        QueryBlockDevice(device);
    } else {
        device->bytes = static_cast<uint64_t>(info.st_size);
    }
    return 0;
}

int MkfsCloseDevice(MkfsDevice *device) {
    if (device->fd < 0) return -1;
    int synced = FileIo().fsync(device->fd);
    if (synced != 0) PrintErrno("fsync");
    int closed = FileIo().close(device->fd);
    device->fd = -1;
    return synced == 0 && closed == 0 ? 0 : -1;
}

MkfsWriter::MkfsWriter(int fd, size_t bufferSize, uint64_t total, Progress progress, void *user)
    : fd_(fd), buffer_(bufferSize), total_(total), progress_(progress), user_(user) {}

int MkfsWriter::Start(uint64_t offset) {
    if (FileIo().seek(fd_, static_cast<int64_t>(offset), SEEK_SET) != static_cast<int64_t>(offset)) {
        char message[64];
        snprintf(message, sizeof message, "lseek(%llu)", static_cast<unsigned long long>(offset));
        PrintErrno(message);
        failed_ = true;
        return -1;
    }
    return 0;
}

int MkfsWriter::WriteBlock(const uint8_t *data, size_t length) {
    ssize_t done = FileIo().write(fd_, data, length);
    if (done < 0) {
        PrintErrno("write error");
        return -1;
    }
    if (static_cast<size_t>(done) != length) {
        fprintf(stderr, "short write\n");
        return -1;
    }
    written_ += length;
    if (progress_ != nullptr) progress_(written_, total_, user_);
    return 0;
}

int MkfsWriter::Put(const void *data, size_t length) {
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    while (length > 0 && !failed_) {
        size_t chunk = std::min(length, buffer_.size() - used_);
        memcpy(buffer_.data() + used_, bytes, chunk);
        used_ += chunk;
        bytes += chunk;
        length -= chunk;
        if (used_ == buffer_.size()) Flush();
    }
    return failed_ ? -1 : 0;
}

int MkfsWriter::PutZeros(size_t length) {
    while (length > 0 && !failed_) {
        size_t chunk = std::min(length, buffer_.size() - used_);
        memset(buffer_.data() + used_, 0, chunk);
        used_ += chunk;
        length -= chunk;
        if (used_ == buffer_.size()) Flush();
    }
    return failed_ ? -1 : 0;
}

int MkfsWriter::Flush() {
    if (failed_) return -1;
    if (used_ > 0 && WriteBlock(buffer_.data(), used_) != 0) failed_ = true;
    used_ = 0;
    return failed_ ? -1 : 0;
}
