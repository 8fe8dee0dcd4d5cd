// The formatter's small I/O helpers: opening the target (block device or
// image file) and asking its size and geometry, and one buffered writer
// that fills the device front to back. All card access goes through
// FileIo(); failures print their message on standard error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct MkfsDevice {
    int fd;                    // -1 when not open
    bool isBlockDevice;        // else a regular image file
    uint64_t bytes;            // size of the device or image
    uint32_t sectorSize;       // logical sector size, at least 512
    uint16_t heads;            // 0 when the device reports none
    uint16_t sectorsPerTrack;  // 0 when the device reports none
};

// Opens path read-write (block devices exclusively, so a mounted card is
// refused) and fills the size, sector size and geometry. Returns 0, or -1
// after printing the reason; the device is closed again on failure.
int MkfsOpenDevice(const char *path, MkfsDevice *device);

// Flushes the device to the medium and closes it; -1 when either fails.
int MkfsCloseDevice(MkfsDevice *device);

// Writes a stream of bytes sequentially from a start offset in blocks of
// the buffer size, reporting progress after every block.
class MkfsWriter {
public:
    using Progress = void (*)(uint64_t done, uint64_t total, void *user);

    MkfsWriter(int fd, size_t bufferSize, uint64_t total, Progress progress, void *user);

    // Seeks to the start offset; -1 (with "lseek(%llu)") on failure.
    int Start(uint64_t offset);
    // Appends bytes; -1 once any write failed.
    int Put(const void *data, size_t length);
    // Appends length zero bytes.
    int PutZeros(size_t length);
    // Writes what is buffered.
    int Flush();
    size_t bufferSize() const { return buffer_.size(); }

private:
    int WriteBlock(const uint8_t *data, size_t length);

    int fd_;
    std::vector<uint8_t> buffer_;
    size_t used_ = 0;
    uint64_t written_ = 0;
    uint64_t total_;
    Progress progress_;
    void *user_;
    bool failed_ = false;
};
