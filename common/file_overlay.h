// The common part of a file layer that serves some files itself (from a
// card image, or with patched bytes) and passes every other descriptor to
// the layer under it: the table of the files it serves, each with its
// size and read position, and seeking inside them. File is the layer's own
// record of an open file, with `size` and `position` members.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "common/file_io.h"

template <typename File>
class OverlayFiles {
public:
    void Add(int fd, const File &file) {
        std::lock_guard<std::mutex> lock(mutex_);
        open_[fd] = file;
    }
    void Remove(int fd) {
        std::lock_guard<std::mutex> lock(mutex_);
        open_.erase(fd);
    }
    // A copy of the file fd serves; false for a descriptor of the layer under.
    bool Find(int fd, File *file) const {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = open_.find(fd);
        if (it == open_.end()) return false;
        *file = it->second;
        return true;
    }
    void SetPosition(int fd, int64_t position) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = open_.find(fd);
        if (it != open_.end()) it->second.position = position;
    }
    // lseek inside the file (SEEK_SET, SEEK_CUR, SEEK_END): the new
    // position, or -1 with errno EINVAL.
    int64_t Seek(int fd, const File &file, int64_t offset, int whence) {
        int64_t target = FileSeekTarget(file.position, static_cast<int64_t>(file.size), offset, whence);
        if (target >= 0) SetPosition(fd, target);
        return target;
    }

private:
    mutable std::mutex mutex_;
    std::map<int, File> open_;
};
