// A card held in memory under the file layer, for sweeps that stop the
// recorder at every write of whole media files. The index, event and
// key-frame bytes are kept as they are; of a write into a media file's data
// area only its first bytes (where the pack and file headers stand) are
// kept, and the rest becomes a marker: the range and the clock second it
// was written at. Copies are cheap, so every state of a sweep gets its own.
#pragma once

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "avrecord_lib/index_records.h"
#include "common/card_layout.h"
#include "common/file_io.h"

namespace memcard {

inline constexpr uint64_t kPageSize = 4096;
inline constexpr size_t kKeptHead = 64;  // bytes of a media data write kept as they are

// Media data written (bytes not kept), by start offset.
struct Extent {
    uint64_t end;   // one past the last byte
    uint32_t time;  // clock second of the write
};

struct File {
    uint64_t size = 0;
    bool media = false;
    std::map<uint64_t, std::string> pages;  // page number -> kPageSize bytes
    std::map<uint64_t, Extent> extents;     // start -> media data written
};

// One write (or, with sync set, a data flush) as the recorder made it.
struct Op {
    std::string path;
    uint64_t offset = 0;
    std::string bytes;    // the kept bytes
    uint64_t length = 0;  // bytes written
    uint32_t time = 0;
    bool sync = false;
};

class Card {
public:
    void Create(const std::string &path, uint64_t size, bool media) {
        File &f = files_[path];
        f.size = size;
        f.media = media;
    }
    bool Has(const std::string &path) const { return files_.count(path) != 0; }
    const File &Get(const std::string &path) const { return files_.at(path); }

    // Applies a write; a media data write keeps only its head and marks the rest.
    void Apply(const Op &op) {
        if (op.sync) return;
        File &f = files_.at(op.path);
        if (!f.media || op.offset >= kKeyFrameTableOffset) {
            Put(f, op.offset, op.bytes);
            Paint(f, op.offset, op.offset + op.length, nullptr);
            return;
        }
        Clear(f, op.offset, op.offset + op.length);
        Put(f, op.offset, op.bytes);
        Extent extent{op.offset + op.length, op.time};
        Paint(f, op.offset, op.offset + op.length, &extent);
    }

    // What a write of `length` bytes from data leaves in the log.
    static Op Record(const std::string &path, uint64_t offset, const void *data, uint64_t length,
                     uint32_t time, bool media) {
        bool marked = media && offset < kKeyFrameTableOffset;
        size_t kept = marked ? std::min<uint64_t>(length, kKeptHead) : length;
        return Op{path, offset, std::string(static_cast<const char *>(data), kept), length, time, false};
    }

    size_t Read(const std::string &path, uint64_t offset, void *buf, size_t length) const {
        const File &f = files_.at(path);
        if (offset >= f.size) return 0;
        length = static_cast<size_t>(std::min<uint64_t>(length, f.size - offset));
        auto *out = static_cast<char *>(buf);
        memset(out, 0, length);
        for (uint64_t at = offset; at < offset + length;) {
            uint64_t page = at / kPageSize;
            uint64_t in = at % kPageSize;
            uint64_t n = std::min<uint64_t>(kPageSize - in, offset + length - at);
            auto it = f.pages.find(page);
            if (it != f.pages.end()) memcpy(out + (at - offset), it->second.data() + in, n);
            at += n;
        }
        return length;
    }

    // The written ranges of [from, to) that are not covered by media data
    // written between the clock seconds first and last.
    std::vector<std::pair<uint64_t, uint64_t>> NotWrittenBetween(const std::string &path, uint64_t from,
                                                                 uint64_t to, uint32_t first,
                                                                 uint32_t last) const {
        std::vector<std::pair<uint64_t, uint64_t>> gaps;
        const File &f = files_.at(path);
        uint64_t at = from;
        auto it = f.extents.upper_bound(from);
        if (it != f.extents.begin()) --it;
        for (; it != f.extents.end() && it->first < to && at < to; ++it) {
            if (it->second.end <= at) continue;
            bool inTime = it->second.time >= first && it->second.time <= last;
            if (it->first > at) gaps.emplace_back(at, it->first);
            if (!inTime) gaps.emplace_back(std::max(at, it->first), std::min(to, it->second.end));
            at = std::max(at, it->second.end);
        }
        if (at < to) gaps.emplace_back(at, to);
        return gaps;
    }

private:
    static void Put(File &f, uint64_t offset, const std::string &bytes) {
        for (uint64_t done = 0; done < bytes.size();) {
            uint64_t at = offset + done;
            std::string &page = f.pages[at / kPageSize];
            if (page.empty()) page.assign(kPageSize, '\0');
            uint64_t in = at % kPageSize;
            uint64_t n = std::min<uint64_t>(kPageSize - in, bytes.size() - done);
            page.replace(in, n, bytes, done, n);
            done += n;
        }
    }

    // Zeroes [from, to): whole pages go, partial ones are cleared.
    static void Clear(File &f, uint64_t from, uint64_t to) {
        for (uint64_t page = from / kPageSize; page * kPageSize < to; ++page) {
            auto it = f.pages.find(page);
            if (it == f.pages.end()) continue;
            uint64_t start = std::max(from, page * kPageSize);
            uint64_t end = std::min(to, (page + 1) * kPageSize);
            if (end - start == kPageSize) {
                f.pages.erase(it);
            } else {
                it->second.replace(start % kPageSize, end - start, end - start, '\0');
            }
        }
    }

    // Clears [from, to) of the extents and, with extent, marks it.
    static void Paint(File &f, uint64_t from, uint64_t to, const Extent *extent) {
        auto it = f.extents.upper_bound(from);
        if (it != f.extents.begin()) --it;
        std::vector<std::pair<uint64_t, Extent>> keep;
        while (it != f.extents.end() && it->first < to) {
            if (it->second.end <= from) {
                ++it;
                continue;
            }
            if (it->first < from) keep.emplace_back(it->first, Extent{from, it->second.time});
            if (it->second.end > to) keep.emplace_back(to, it->second);
            it = f.extents.erase(it);
        }
        for (const auto &k : keep) f.extents[k.first] = k.second;
        if (extent != nullptr) f.extents[from] = *extent;
    }

    std::map<std::string, File> files_;
};

// The card in force under FileIo() while a Mount lives; writes are logged
// with the clock's second.
class Mount {
public:
    Mount(Card *card, uint32_t (*clock)()) : card_(card), clock_(clock) {
        active_ = this;
        SetFileIo(&kOps);
    }
    ~Mount() {
        SetFileIo(nullptr);
        active_ = nullptr;
    }
    Mount(const Mount &) = delete;
    Mount &operator=(const Mount &) = delete;

    const std::vector<Op> &log() const { return log_; }

private:
    struct Open {
        std::string path;
        uint64_t position = 0;
    };
    static constexpr int kFirstFd = 1000;

    static int DoOpen(const char *path, int, mode_t) {
        if (!active_->card_->Has(path)) {
            errno = ENOENT;
            return -1;
        }
        int fd = active_->nextFd_++;
        active_->open_[fd] = Open{path, 0};
        return fd;
    }
    static Open *Find(int fd) {
        auto it = active_->open_.find(fd);
        if (it != active_->open_.end()) return &it->second;
        errno = EBADF;
        return nullptr;
    }
    static int DoClose(int fd) { return active_->open_.erase(fd) == 1 ? 0 : -1; }
    static int64_t DoSeek(int fd, int64_t offset, int whence) {
        Open *o = Find(fd);
        if (o == nullptr) return -1;
        int64_t size = static_cast<int64_t>(active_->card_->Get(o->path).size);
        int64_t target = FileSeekTarget(static_cast<int64_t>(o->position), size, offset, whence);
        if (target >= 0) o->position = static_cast<uint64_t>(target);
        return target;
    }
    static ssize_t DoRead(int fd, void *buf, size_t length) {
        Open *o = Find(fd);
        if (o == nullptr) return -1;
        size_t n = active_->card_->Read(o->path, o->position, buf, length);
        o->position += n;
        return static_cast<ssize_t>(n);
    }
    static ssize_t DoWrite(int fd, const void *buf, size_t length) {
        Open *o = Find(fd);
        if (o == nullptr) return -1;
        Mount &m = *active_;
        Op op = Card::Record(o->path, o->position, buf, length, m.clock_(), m.card_->Get(o->path).media);
        m.card_->Apply(op);
        m.log_.push_back(std::move(op));
        o->position += length;
        return static_cast<ssize_t>(length);
    }
    static int DoSync(int fd) {
        Open *o = Find(fd);
        if (o == nullptr) return -1;
        Op op;
        op.path = o->path;
        op.sync = true;
        active_->log_.push_back(op);
        return 0;
    }
    static int DoCloseOnExec(int) { return 0; }
    // The card's files are fixed: none is renamed.
    static int DoRename(const char *, const char *) {
        errno = EPERM;
        return -1;
    }

    static inline Mount *active_ = nullptr;
    static int DoDropCache(int) { return 0; }  // memory is the card itself

    static inline const FileIoOps kOps = {DoOpen, DoClose, DoSeek,        DoRead,   DoWrite,
                                          DoSync, DoSync,  DoCloseOnExec, DoRename, DoDropCache};

    Card *card_;
    uint32_t (*clock_)();
    int nextFd_ = kFirstFd;
    std::map<int, Open> open_;
    std::vector<Op> log_;
};

}  // namespace memcard
