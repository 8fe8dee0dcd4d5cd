#include "avrecord_lib/record_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

#include "avrecord_lib/index_records.h"
#include "common/file_io.h"
#include "common/log.h"

namespace {

constexpr mode_t kCreateMode = 0666;

int OpenFlags(int mode) {
    switch (mode & 3) {
        case 2:
            return O_WRONLY | O_CREAT;
        case 3:
            return O_RDWR | O_CREAT;
        default:
            return O_RDONLY;
    }
}

// Descriptor positions leave this layer as 32-bit values, as every offset
// the record storage uses is below 2 GiB.
int ExactTransferResult(ssize_t moved, uint32_t length) {
    return moved >= 0 && static_cast<uint64_t>(moved) == length ? static_cast<int>(length) : -1;
}

}  // namespace

int AVFileOpen(const char *path, int mode) {
    if (path == nullptr) return -1;
    int fd = FileIo().open(path, OpenFlags(mode) | O_LARGEFILE, kCreateMode);
    if (fd < 0) {
        LogTrace("%s %d :open %s fail %d\n", __func__, __LINE__, path, errno);
        return -1;
    }
    if (FileIo().setCloseOnExec(fd) < 0) LogTrace("Failed to set close on exec\n");
    return fd;
}

int AVFileClose(int fd) {
    if (fd < 0) return -1;
    return FileIo().close(fd);
}

FileGuard AVFileOpenGuarded(const std::string &path) {
    return FileGuard(AVFileOpen(path.c_str(), kAVFileModeRead));
}

int AVFileSeek(int fd, int32_t offset, int whence) {
    if (fd < 0) return -1;
    if (whence != kAVFileSeekSet && whence != kAVFileSeekCur && whence != kAVFileSeekEnd) return -1;
    int64_t position = FileIo().seek(fd, offset, whence);
    if (position < 0) return -1;
    return static_cast<int>(static_cast<uint32_t>(position));
}

int AVFileRead(int fd, void *buf, uint32_t length) {
    if (fd < 0 || buf == nullptr) return -1;
    return ExactTransferResult(FileIo().read(fd, buf, length), length);
}

int AVFileWrite(int fd, const void *buf, uint32_t length) {
    if (fd < 0 || buf == nullptr) return -1;
    return ExactTransferResult(FileIo().write(fd, buf, length), length);
}

int AVFileDataSync(int fd) { return fd < 0 ? -1 : FileIo().fdatasync(fd); }

int AV_RecordFileOpen(const char *path, int mode) { return AVFileOpen(path, mode); }
int AV_RecordFileClose(int fd) { return AVFileClose(fd); }

int AV_RecordStreamInfoRead(int fd, uint32_t offset, void *buf, uint32_t length) {
    if (buf == nullptr || fd < 0) return -1;
    int requested = static_cast<int>(offset);
    int position = AVFileSeek(fd, requested, kAVFileSeekSet);
    if (position < 0) {
        LogTrace("%s %d AVFileSeek fail fd = %d  dataOffset = %d offset = %d errno = %d \n", __func__,
                 __LINE__, fd, position, requested, errno);
        return -1;
    }
    if (AVFileRead(fd, buf, length) < 0) {
        LogTrace("%s %d Read data error  Offset = %d offset = %d \n", __func__, __LINE__, position,
                 requested);
        return -1;
    }
    return position;
}

int AV_RecordStreamInfoWrite(int fd, uint32_t offset, const void *buf, uint32_t length) {
    if (buf == nullptr || fd < 0) return -1;
    // A write whose seek failed would land elsewhere: it is not made.
    if (AVFileSeek(fd, static_cast<int32_t>(offset), kAVFileSeekSet) < 0) return -1;
    return AVFileWrite(fd, buf, length);
}

int AV_RecordKeyFrameInfoWrite(int fd, uint32_t offset, const void *buf, uint32_t length) {
    return AV_RecordStreamInfoWrite(fd, kKeyFrameTableOffset + offset, buf, length);
}

int AV_RecordStreamFileClose(int fd) {
    int ret = AVFileClose(fd);
    LogTrace("%s %d : AVFileClose ret= %d fd = %d \n", __func__, __LINE__, ret, fd);
    return ret;
}
