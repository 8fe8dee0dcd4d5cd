#include "mkfs/card_prealloc.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/file_io.h"
#include "mkfs/card_file_set.h"

namespace {

constexpr mode_t kFileMode = 0666;
constexpr uint8_t kZero = 0;

std::string JoinPath(const char *dir, const char *name) {
    std::string path = dir;
    if (!path.empty() && path.back() != '/') path += '/';
    return path + name;
}

// 1 when the file is there with its size, 0 when missing, -1 when
// something else stands in its place.
int ExistingState(const std::string &path, const CardFile &file) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        if (errno == ENOENT) return 0;
        fprintf(stderr, "can't stat '%s': %s\n", path.c_str(), strerror(errno));
        return -1;
    }
    if (S_ISREG(info.st_mode) && static_cast<uint64_t>(info.st_size) == file.m_u32Size) return 1;
    fprintf(stderr, "'%s' is in the way: %lld bytes, %u expected\n", path.c_str(),
            static_cast<long long>(info.st_size), file.m_u32Size);
    return -1;
}

// Ends the file at its size without writing its contents (a sparse file).
int CreateSparse(const std::string &path, uint32_t size) {
    int fd = FileIo().open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, kFileMode);
    if (fd < 0) {
        fprintf(stderr, "can't create '%s': %s\n", path.c_str(), strerror(errno));
        return -1;
    }
    int64_t last = static_cast<int64_t>(size) - 1;
    int result = FileIo().seek(fd, last, SEEK_SET) == last && FileIo().write(fd, &kZero, 1) == 1 ? 0 : -1;
    if (result != 0) fprintf(stderr, "can't size '%s': %s\n", path.c_str(), strerror(errno));
    if (FileIo().close(fd) != 0) result = -1;
    return result;
}

}  // namespace

int CardPreallocate(const char *dir, uint32_t mediaFiles, uint32_t pictureFiles) {
    if (dir == nullptr) return -1;
    if (mediaFiles > kCardMaxMediaFiles) {
        fprintf(stderr, "%u media files: the card index describes at most %u\n", mediaFiles,
                kCardMaxMediaFiles);
        return -1;
    }
    const uint32_t count = CardFileCount(pictureFiles, mediaFiles);
    CardFile file;
    for (uint32_t position = 0; position < count; ++position) {
        CardFileAt(position, pictureFiles, mediaFiles, &file);
        if (ExistingState(JoinPath(dir, file.m_szLongName), file) < 0) return -1;
    }
    for (uint32_t position = 0; position < count; ++position) {
        CardFileAt(position, pictureFiles, mediaFiles, &file);
        std::string path = JoinPath(dir, file.m_szLongName);
        if (ExistingState(path, file) == 0 && CreateSparse(path, file.m_u32Size) != 0) return -1;
    }
    return 0;
}
