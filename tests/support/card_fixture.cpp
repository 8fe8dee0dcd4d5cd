#include "support/card_fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

#include "avrecord_lib/index_records.h"

void MakeSparseFile(const std::string &path, uint64_t size) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0666);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(size)) != 0) {
        if (fd >= 0) ::close(fd);
        throw std::runtime_error("cannot make sparse file " + path);
    }
    ::close(fd);
}

std::string ReadFileAt(const std::string &path, uint64_t offset, size_t length) {
    std::string bytes(length, '\0');
    int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) throw std::runtime_error("cannot open " + path);
    ssize_t got = ::pread(fd, bytes.data(), length, static_cast<off_t>(offset));
    ::close(fd);
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
}

void WriteFileAt(const std::string &path, uint64_t offset, const std::string &bytes) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0666);
    if (fd < 0) throw std::runtime_error("cannot open " + path);
    ssize_t put = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    ::close(fd);
    if (put != static_cast<ssize_t>(bytes.size())) throw std::runtime_error("short write to " + path);
}

std::string MediaFilePath(const std::string &dir, uint32_t fileNo) {
    char name[32];
    snprintf(name, sizeof name, kMediaFileNameFormat, static_cast<int>(fileNo));
    return dir + name;
}

void MakeSparseCard(const std::string &dir, uint32_t mediaFiles) {
    for (uint32_t n = 0; n < mediaFiles; ++n) MakeSparseFile(MediaFilePath(dir, n), kMediaFileSize);
    MakeSparseFile(dir + kIndexFileName, kIndexFileSize);
    MakeSparseFile(dir + kEventFileName, kEventFileSize);
}
