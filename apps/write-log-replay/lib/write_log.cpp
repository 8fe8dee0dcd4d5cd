#include "lib/write_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "common/file_io.h"

namespace {

constexpr size_t kCopyChunk = 1 << 20;
constexpr mode_t kMirrorFileMode = 0644;

int ReadAt(int fd, uint64_t offset, void *buf, size_t length) {
    if (FileIo().seek(fd, static_cast<int64_t>(offset), SEEK_SET) < 0) return -1;
    auto *at = static_cast<uint8_t *>(buf);
    while (length > 0) {
        ssize_t got = FileIo().read(fd, at, length);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return -1;
        at += got;
        length -= static_cast<size_t>(got);
    }
    return 0;
}

int WriteAt(int fd, uint64_t offset, const void *buf, size_t length) {
    if (FileIo().seek(fd, static_cast<int64_t>(offset), SEEK_SET) < 0) return -1;
    auto *at = static_cast<const uint8_t *>(buf);
    while (length > 0) {
        ssize_t put = FileIo().write(fd, at, length);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return -1;
        at += put;
        length -= static_cast<size_t>(put);
    }
    return 0;
}

// Writes zeros over [offset, offset + length).
int ZeroAt(int fd, uint64_t offset, uint64_t length) {
    static const std::vector<uint8_t> zeros(kCopyChunk, 0);
    for (uint64_t done = 0; done < length;) {
        size_t step = static_cast<size_t>(std::min<uint64_t>(kCopyChunk, length - done));
        if (WriteAt(fd, offset + done, zeros.data(), step) < 0) return -1;
        done += step;
    }
    return 0;
}

std::string Errno(const std::string &what) { return what + ": " + strerror(errno); }

// Copies [offset, offset + size) of the image into a new file, leaving the
// image's holes as holes.
int CopyOut(int imageFd, uint64_t offset, uint64_t size, int fileFd) {
    if (ftruncate(fileFd, static_cast<off_t>(size)) < 0) return -1;
    std::vector<uint8_t> chunk(kCopyChunk);
    uint64_t at = 0;
    while (at < size) {
        int64_t data = FileIo().seek(imageFd, static_cast<int64_t>(offset + at), SEEK_DATA);
        if (data < 0) break;  // only holes from here on
        if (static_cast<uint64_t>(data) >= offset + size) break;
        at = static_cast<uint64_t>(data) - offset;
        int64_t hole = FileIo().seek(imageFd, data, SEEK_HOLE);
        uint64_t end = std::min<uint64_t>(size, hole < 0 ? size : static_cast<uint64_t>(hole) - offset);
        while (at < end) {
            size_t step = static_cast<size_t>(std::min<uint64_t>(kCopyChunk, end - at));
            if (ReadAt(imageFd, offset + at, chunk.data(), step) < 0) return -1;
            if (WriteAt(fileFd, at, chunk.data(), step) < 0) return -1;
            at += step;
        }
    }
    return 0;
}

}  // namespace

bool WriteLogChangesContent(const WriteLogRecord &record) {
    if (record.entry.flags & kWriteLogMark) return false;
    return record.entry.sectorCount > 0;
}

std::string WriteLogDescribe(const WriteLogRecord &record) {
    uint64_t flags = record.entry.flags;
    if (flags & kWriteLogMark) return "mark " + record.mark;
    std::string text;
    if ((flags & kWriteLogFlush) && record.entry.sectorCount > 0) text += "flush+";
    if (flags & kWriteLogFua) text += "fua ";
    if (flags & kWriteLogMetadata) text += "metadata ";
    if (flags & kWriteLogDiscard) return text + "discard";
    if (record.entry.sectorCount == 0) return text + ((flags & kWriteLogFlush) ? "flush" : "empty");
    return text + "write";
}

WriteLogReader::~WriteLogReader() {
    if (fd_ >= 0) FileIo().close(fd_);
}

int WriteLogReader::Open(const std::string &path, std::string *error) {
    fd_ = FileIo().open(path.c_str(), O_RDONLY, 0);
    if (fd_ < 0) {
        *error = Errno("cannot open " + path);
        return -1;
    }
    if (ReadAt(fd_, 0, &super_, sizeof super_) < 0) {
        *error = path + ": no super block";
        return -1;
    }
    if (super_.magic != kWriteLogMagic) {
        *error = path + ": not a write log (magic " + std::to_string(super_.magic) + ")";
        return -1;
    }
    if (super_.version != kWriteLogVersion) {
        *error = path + ": log version " + std::to_string(super_.version) + ", only 1 is known";
        return -1;
    }
    uint32_t size = super_.sectorSize;
    if (size < kWriteLogMinSectorSize || size > kWriteLogMaxSectorSize || (size & (size - 1)) != 0) {
        *error = path + ": sector size " + std::to_string(size);
        return -1;
    }
    return 0;
}

int WriteLogReader::Next(WriteLogRecord *record, std::string *error) {
    if (next_ >= super_.entryCount) return 0;
    const uint64_t sectorSize = super_.sectorSize;
    std::vector<uint8_t> header(sectorSize);
    std::string where = "entry " + std::to_string(next_);
    if (ReadAt(fd_, nextSector_ * sectorSize, header.data(), header.size()) < 0) {
        *error = where + ": log ends inside its header";
        return -1;
    }
    record->number = next_;
    memcpy(&record->entry, header.data(), sizeof record->entry);
    record->mark.clear();
    record->data.clear();
    const WriteLogEntry &entry = record->entry;
    if (entry.flags & kWriteLogMark) {
        if (entry.dataLength > sectorSize - sizeof entry) {
            *error = where + ": mark of " + std::to_string(entry.dataLength) + " bytes";
            return -1;
        }
        record->mark.assign(reinterpret_cast<const char *>(header.data() + sizeof entry), entry.dataLength);
    }
    uint64_t dataSectors = 0;
    if (!(entry.flags & (kWriteLogMark | kWriteLogDiscard))) dataSectors = entry.sectorCount;
    if (dataSectors > kWriteLogMaxWriteBytes / sectorSize) {
        *error = where + ": write of " + std::to_string(dataSectors) + " sectors";
        return -1;
    }
    if (dataSectors > 0) {
        record->data.resize(dataSectors * sectorSize);
        if (ReadAt(fd_, (nextSector_ + 1) * sectorSize, record->data.data(), record->data.size()) < 0) {
            *error = where + ": log ends inside its data";
            return -1;
        }
    }
    nextSector_ += 1 + dataSectors;
    ++next_;
    return 1;
}

WriteLogMirror::~WriteLogMirror() {
    for (const File &file : files_) FileIo().close(file.fd);
}

int WriteLogMirror::Load(const std::string &extents, int imageFd, const std::string &folder,
                         std::string *error) {
    std::istringstream lines(extents);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.empty()) continue;
        std::istringstream fields(line);
        File file{};
        if (!(fields >> file.name >> file.offset >> file.size) || file.name.find('/') != std::string::npos) {
            *error = "extent line '" + line + "' is not NAME OFFSET SIZE";
            return -1;
        }
        std::string path = folder + "/" + file.name;
        file.fd = FileIo().open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, kMirrorFileMode);
        if (file.fd < 0) {
            *error = Errno("cannot create " + path);
            return -1;
        }
        files_.push_back(file);
        if (CopyOut(imageFd, file.offset, file.size, file.fd) < 0) {
            *error = Errno("cannot copy " + file.name + " out of the image");
            return -1;
        }
    }
    return 0;
}

int WriteLogMirror::Apply(uint64_t offset, const uint8_t *data, uint64_t length, std::string *error) {
    for (const File &file : files_) {
        uint64_t from = std::max(offset, file.offset);
        uint64_t to = std::min(offset + length, file.offset + file.size);
        if (from >= to) continue;
        int result = data != nullptr ? WriteAt(file.fd, from - file.offset, data + (from - offset), to - from)
                                     : ZeroAt(file.fd, from - file.offset, to - from);
        if (result < 0) {
            *error = Errno("cannot write the copy of " + file.name);
            return -1;
        }
    }
    return 0;
}

namespace {

// Puts one content-changing record onto the image and the mirror.
int ApplyRecord(const WriteLogRecord &record, uint32_t sectorSize, int imageFd, WriteLogMirror *mirror,
                std::string *error) {
    uint64_t offset = record.entry.sector * sectorSize;
    uint64_t length = record.entry.sectorCount * sectorSize;
    bool discard = record.entry.flags & kWriteLogDiscard;
    // A discarded range reads back as zeros, as on a card that trims.
    int result =
        discard ? ZeroAt(imageFd, offset, length) : WriteAt(imageFd, offset, record.data.data(), length);
    if (result < 0) {
        *error = Errno("entry " + std::to_string(record.number) + ": cannot write the image");
        return -1;
    }
    return mirror->Apply(offset, discard ? nullptr : record.data.data(), length, error);
}

int ReadWhole(const std::string &path, std::string *text, std::string *error) {
    int fd = FileIo().open(path.c_str(), O_RDONLY, 0);
    if (fd < 0) {
        *error = Errno("cannot open " + path);
        return -1;
    }
    char buf[4096];
    ssize_t got;
    while ((got = FileIo().read(fd, buf, sizeof buf)) > 0) text->append(buf, static_cast<size_t>(got));
    FileIo().close(fd);
    return 0;
}

}  // namespace

int ReplayWriteLog(const WriteLogReplayOptions &options,
                   const std::function<bool(const WriteLogState &)> &check, WriteLogReplayResult *result,
                   std::string *error) {
    *result = WriteLogReplayResult{};
    WriteLogReader log;
    if (log.Open(options.logPath, error) < 0) return -1;
    int imageFd = FileIo().open(options.imagePath.c_str(), O_RDWR, 0);
    if (imageFd < 0) {
        *error = Errno("cannot open " + options.imagePath);
        return -1;
    }
    struct CloseImage {
        int fd;
        ~CloseImage() { FileIo().close(fd); }
    } closeImage{imageFd};
    WriteLogMirror mirror;
    if (!options.mirrorFolder.empty()) {
        std::string extents;
        if (ReadWhole(options.mirrorExtents, &extents, error) < 0 ||
            mirror.Load(extents, imageFd, options.mirrorFolder, error) < 0)
            return -1;
    }
    const uint64_t every = std::max<uint64_t>(options.every, 1);
    const uint32_t sectorSize = log.Super().sectorSize;
    uint64_t lastChecked = 0;  // writes applied when check last ran
    WriteLogRecord record;
    int got;
    auto runCheck = [&](uint64_t entry) {
        ++result->states;
        lastChecked = result->writes;
        if (!check(WriteLogState{result->states, entry, result->writes})) ++result->failedStates;
    };
    while ((got = log.Next(&record, error)) == 1) {
        ++result->entries;
        if (!WriteLogChangesContent(record)) continue;
        if (ApplyRecord(record, sectorSize, imageFd, &mirror, error) < 0) return -1;
        ++result->writes;
        if (result->writes % every == 0) runCheck(record.number);
    }
    if (got < 0) return -1;
    if (result->writes != lastChecked) runCheck(record.number);
    return 0;
}
