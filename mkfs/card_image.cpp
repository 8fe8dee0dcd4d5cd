#include "mkfs/card_image.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/file_io.h"
#include "mkfs/card_file_set.h"

namespace {

// Writes length bytes at position of the device and flushes them.
int WriteBytes(const char *device, uint64_t position, const void *data, uint32_t length) {
    int fd = FileIo().open(device, O_RDWR, 0);
    if (fd < 0) {
        fprintf(stderr, "can't open '%s': %s\n", device, strerror(errno));
        return -1;
    }
    int result = -1;
    ssize_t done = -1;
    if (FileIo().seek(fd, static_cast<int64_t>(position), SEEK_SET) != static_cast<int64_t>(position)) {
        fprintf(stderr, "lseek(%llu): %s\n", static_cast<unsigned long long>(position), strerror(errno));
    } else if ((done = FileIo().write(fd, data, length)) < 0) {
        fprintf(stderr, "write error: %s\n", strerror(errno));
    } else if (static_cast<uint32_t>(done) != length) {
        fprintf(stderr, "short write\n");
    } else if (FileIo().fsync(fd) != 0) {
        fprintf(stderr, "fsync: %s\n", strerror(errno));
    } else {
        result = 0;
    }
    if (FileIo().close(fd) != 0) result = -1;
    return result;
}

}  // namespace

int CardFilePosition(const Fat32Layout &layout, const char *longName) {
    CardFile file;
    for (uint32_t position = 0; CardFileAt(position, layout.pictureFiles, layout.mediaFiles, &file) == 0;
         ++position) {
        if (strcmp(file.m_szLongName, longName) == 0) return static_cast<int>(position);
    }
    return -1;
}

int CardImageWriteFile(const char *device, const Fat32Layout &layout, const char *longName, uint32_t offset,
                       const void *data, uint32_t length) {
    int position = CardFilePosition(layout, longName);
    CardFile file;
    if (position < 0 ||
        CardFileAt(static_cast<uint32_t>(position), layout.pictureFiles, layout.mediaFiles, &file) != 0 ||
        static_cast<uint64_t>(offset) + length > file.m_u32Size) {
        fprintf(stderr, "no room for %u bytes at %u in '%s'\n", length, offset, longName);
        return -1;
    }
    uint64_t start =
        Fat32ClusterOffset(layout, Fat32FileFirstCluster(layout, static_cast<uint32_t>(position)));
    return WriteBytes(device, start + offset, data, length);
}
