#include "card_reader/card_image_io.h"

#include <fcntl.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "avrecord_lib/index_records.h"
#include "common/file_guard.h"
#include "common/file_io.h"
#include "common/file_overlay.h"
#include "mkfs/fat32_reader.h"

namespace {

constexpr char kPictureSuffix[] = ".pic";

struct ImageFile {
    Fat32File file;
    bool checked;  // its clusters were found contiguous
};

// A card file open through the layer: its own read-only descriptor of the
// image, and where the file's bytes lie in it.
struct OpenFile {
    uint64_t start;    // byte offset of the file's first cluster
    uint32_t size;     // file size
    int64_t position;  // read position inside the file
    bool writable;     // opened for writing (a writable attach only)
};

struct AttachedImage {
    std::string path;    // the image as given
    std::string prefix;  // "<image>/"
    bool writable;       // files may be written in place
    Fat32Volume volume;
    std::vector<ImageFile> files;
    std::mutex mutex;  // guards the checked flags
    OverlayFiles<OpenFile> open;
};

std::unique_ptr<AttachedImage> g_image;

bool IsPicture(const std::string &name) {
    return name.size() > sizeof kPictureSuffix - 1 &&
           name.compare(name.size() - (sizeof kPictureSuffix - 1), std::string::npos, kPictureSuffix) == 0;
}

int CheckFile(const AttachedImage &image, ImageFile *f, std::string *why) {
    FileGuard device(PosixFileIo().open(image.path.c_str(), O_RDONLY | O_CLOEXEC, 0), &PosixFileIo());
    if (device.fd() < 0 || Fat32CheckContiguous(device.fd(), image.volume, f->file, why) != 0) return -1;
    f->checked = true;
    return 0;
}

// The file a path names inside the image; nullptr (errno ENOENT) when the
// path is inside it but no such file exists, or `outside` when the path is
// not the image's at all.
ImageFile *Lookup(const char *path, bool *outside) {
    std::string text(path);
    *outside = g_image == nullptr || text.compare(0, g_image->prefix.size(), g_image->prefix) != 0;
    if (*outside) return nullptr;
    std::string name = text.substr(g_image->prefix.size());
    for (ImageFile &f : g_image->files) {
        if (strcasecmp(f.file.name.c_str(), name.c_str()) == 0) return &f;
    }
    errno = ENOENT;
    return nullptr;
}

int ImageOpen(const char *path, int flags, mode_t mode) {
    bool outside = false;
    ImageFile *f = Lookup(path, &outside);
    if (outside) return PosixFileIo().open(path, flags, mode);
    if (f == nullptr) return -1;
    bool write = (flags & O_ACCMODE) != O_RDONLY;
    // A file that exists may be opened with O_CREAT; nothing is ever created,
    // truncated or appended to.
    if ((write && !g_image->writable) || (flags & (O_TRUNC | O_APPEND)) != 0 ||
        (!write && (flags & O_CREAT) != 0)) {
        errno = EROFS;
        return -1;
    }
    {
        std::lock_guard<std::mutex> lock(g_image->mutex);
        std::string why;
        if (!f->checked && CheckFile(*g_image, f, &why) != 0) {
            errno = EIO;
            return -1;
        }
    }
    int fd = PosixFileIo().open(g_image->path.c_str(), (write ? O_RDWR : O_RDONLY) | (flags & O_CLOEXEC), 0);
    if (fd < 0) return -1;
    g_image->open.Add(fd,
                      OpenFile{g_image->volume.ClusterOffset(f->file.firstCluster), f->file.size, 0, write});
    return fd;
}

// The open card file of a descriptor; false for any other descriptor.
bool Find(int fd, OpenFile *file) { return g_image != nullptr && g_image->open.Find(fd, file); }

void SetPosition(int fd, int64_t position) { g_image->open.SetPosition(fd, position); }

int ImageClose(int fd) {
    if (g_image != nullptr) g_image->open.Remove(fd);
    return PosixFileIo().close(fd);
}

// SEEK_DATA / SEEK_HOLE inside a card file: the image's own holes (a
// sparse image file; a device has none), bounded by the file's end.
int64_t ImageSeekExtent(int fd, const OpenFile &f, int64_t offset, int whence) {
    int64_t size = f.size;
    if (offset < 0 || offset >= size) {
        errno = ENXIO;
        return -1;
    }
    int64_t at = PosixFileIo().seek(fd, static_cast<int64_t>(f.start) + offset, whence);
    if (at < 0) return -1;
    at = std::min(at - static_cast<int64_t>(f.start), size);
    if (whence == SEEK_DATA && at == size) {
        errno = ENXIO;
        return -1;
    }
    SetPosition(fd, at);
    return at;
}

int64_t ImageSeek(int fd, int64_t offset, int whence) {
    OpenFile f;
    if (!Find(fd, &f)) return PosixFileIo().seek(fd, offset, whence);
    if (whence == SEEK_DATA || whence == SEEK_HOLE) return ImageSeekExtent(fd, f, offset, whence);
    return g_image->open.Seek(fd, f, offset, whence);
}

ssize_t ImageRead(int fd, void *buf, size_t length) {
    OpenFile f;
    if (!Find(fd, &f)) return PosixFileIo().read(fd, buf, length);
    if (f.position >= f.size) return 0;
    size_t n = std::min<uint64_t>(length, static_cast<uint64_t>(f.size - f.position));
    int64_t at = static_cast<int64_t>(f.start) + f.position;
    if (PosixFileIo().seek(fd, at, SEEK_SET) != at) return -1;
    ssize_t got = PosixFileIo().read(fd, buf, n);
    if (got > 0) SetPosition(fd, f.position + got);
    return got;
}

// Writes stay inside the file: its clusters are overwritten, never added.
ssize_t ImageWrite(int fd, const void *buf, size_t length) {
    OpenFile f;
    if (!Find(fd, &f)) return PosixFileIo().write(fd, buf, length);
    if (!f.writable) {
        errno = EBADF;
        return -1;
    }
    if (f.position + static_cast<int64_t>(length) > f.size) {
        errno = EFBIG;
        return -1;
    }
    int64_t at = static_cast<int64_t>(f.start) + f.position;
    if (PosixFileIo().seek(fd, at, SEEK_SET) != at) return -1;
    ssize_t put = PosixFileIo().write(fd, buf, length);
    if (put > 0) SetPosition(fd, f.position + put);
    return put;
}

int ImageFsync(int fd) {
    OpenFile f;
    return Find(fd, &f) && !f.writable ? 0 : PosixFileIo().fsync(fd);
}

int ImageFdatasync(int fd) {
    OpenFile f;
    return Find(fd, &f) && !f.writable ? 0 : PosixFileIo().fdatasync(fd);
}

int ImageSetCloseOnExec(int fd) { return PosixFileIo().setCloseOnExec(fd); }

int ImageRename(const char *from, const char *to) { return PosixFileIo().rename(from, to); }
// A card file of the image is a range of the image: its cache is the image's.
int ImageDropCache(int fd) { return PosixFileIo().dropCache(fd); }

const FileIoOps kImageFileIo = {ImageOpen,  ImageClose,     ImageSeek,           ImageRead,   ImageWrite,
                                ImageFsync, ImageFdatasync, ImageSetCloseOnExec, ImageRename, ImageDropCache};

// Reads the volume and its directory, and checks the card's files.
int Inspect(AttachedImage *image, std::string *why) {
    const std::string &path = image->path;
    FileGuard device(PosixFileIo().open(path.c_str(), O_RDONLY | O_CLOEXEC, 0), &PosixFileIo());
    if (device.fd() < 0) {
        *why = path + ": " + strerror(errno);
        return -1;
    }
    const std::string notOurs = path + ": not a card of this recorder: ";
    std::vector<Fat32File> files;
    std::string problem;
    if (Fat32ReadVolume(device.fd(), &image->volume, &problem) != 0 ||
        Fat32ReadRootDirectory(device.fd(), image->volume, &files, &problem) != 0) {
        *why = notOurs + problem;
        return -1;
    }
    bool hasIndex = false;
    for (const Fat32File &file : files) {
        hasIndex = hasIndex || file.name == kIndexFileName;
        image->files.push_back(ImageFile{file, false});
    }
    if (!hasIndex) {
        *why = notOurs + "no " + kIndexFileName + " in its root directory";
        return -1;
    }
    for (ImageFile &f : image->files) {
        if (IsPicture(f.file.name)) continue;
        if (Fat32CheckContiguous(device.fd(), image->volume, f.file, &problem) != 0) {
            *why = path + ": its files are not laid out as the card formatter does: " + problem;
            return -1;
        }
        f.checked = true;
    }
    return 0;
}

}  // namespace

int CardImageAttach(const std::string &image, std::string *cardDir, std::string *why, bool writable) {
    auto attached = std::make_unique<AttachedImage>();
    attached->path = image;
    attached->prefix = image + "/";
    attached->writable = writable;
    if (Inspect(attached.get(), why) != 0) return -1;
    g_image = std::move(attached);
    *cardDir = g_image->prefix;
    SetFileIo(&kImageFileIo);
    return 0;
}

void CardImageDetach() {
    SetFileIo(nullptr);
    g_image.reset();
}
