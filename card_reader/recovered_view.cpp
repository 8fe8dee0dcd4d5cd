#include "card_reader/recovered_view.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "avrecord_lib/record_file.h"
#include "common/file_guard.h"
#include "common/file_io.h"
#include "common/file_overlay.h"

namespace {

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kFileMode = 0644;
constexpr uint32_t kCopyChunk = 1u << 20;
constexpr char kKeyTableSuffix[] = ".keyframes";
constexpr char kNullDevice[] = "/dev/null";

// An open view file: its patches, size and read position.
struct ViewFile {
    const CardFilePatches *patches;
    int64_t size;
    int64_t position;
};

struct View {
    const FileIoOps *under;                        // the layer the view lies over
    FileIoOps base;                                // its calls
    std::map<std::string, CardFilePatches> files;  // by full path
    OverlayFiles<ViewFile> open;
};

std::unique_ptr<View> g_view;

int ViewOpen(const char *path, int flags, mode_t mode) {
    auto found = g_view->files.find(path);
    if (found == g_view->files.end()) return g_view->base.open(path, flags, mode);
    if ((flags & O_ACCMODE) != O_RDONLY) {
        errno = EROFS;
        return -1;
    }
    int fd = g_view->base.open(path, flags, mode);
    // A missing index reads as all zeros under its records.
    if (fd < 0 && errno == ENOENT) fd = g_view->base.open(kNullDevice, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return -1;
    int64_t size = std::max<int64_t>(g_view->base.seek(fd, 0, SEEK_END), found->second.size);
    g_view->open.Add(fd, ViewFile{&found->second, size, 0});
    return fd;
}

int ViewClose(int fd) {
    g_view->open.Remove(fd);
    return g_view->base.close(fd);
}

int64_t ViewSeek(int fd, int64_t offset, int whence) {
    ViewFile f;
    if (!g_view->open.Find(fd, &f)) return g_view->base.seek(fd, offset, whence);
    return g_view->open.Seek(fd, f, offset, whence);
}

// Copies the patch bytes that fall into [at, at + length) over buf.
void ApplyPatches(const CardFilePatches &p, int64_t at, uint8_t *buf, size_t length) {
    int64_t end = at + static_cast<int64_t>(length);
    for (const FilePatch &patch : p.patches) {
        int64_t from = std::max<int64_t>(at, patch.offset);
        int64_t to = std::min<int64_t>(end, patch.offset + static_cast<int64_t>(patch.bytes.size()));
        if (from < to) memcpy(buf + (from - at), patch.bytes.data() + (from - patch.offset), to - from);
    }
}

ssize_t ViewRead(int fd, void *buf, size_t length) {
    ViewFile f;
    if (!g_view->open.Find(fd, &f)) return g_view->base.read(fd, buf, length);
    if (f.position >= f.size) return 0;
    size_t n = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(length), f.size - f.position));
    uint8_t *out = static_cast<uint8_t *>(buf);
    size_t got = 0;
    if (g_view->base.seek(fd, f.position, SEEK_SET) == f.position) {
        while (got < n) {
            ssize_t r = g_view->base.read(fd, out + got, n - got);
            if (r <= 0) break;
            got += static_cast<size_t>(r);
        }
    }
    memset(out + got, 0, n - got);  // beyond a short file: zeros
    ApplyPatches(*f.patches, f.position, out, n);
    g_view->open.SetPosition(fd, f.position + static_cast<int64_t>(n));
    return static_cast<ssize_t>(n);
}

ssize_t ViewWrite(int fd, const void *buf, size_t length) {
    ViewFile f;
    if (!g_view->open.Find(fd, &f)) return g_view->base.write(fd, buf, length);
    errno = EBADF;
    return -1;
}

int ViewFsync(int fd) { return g_view->base.fsync(fd); }
int ViewFdatasync(int fd) { return g_view->base.fdatasync(fd); }
int ViewSetCloseOnExec(int fd) { return g_view->base.setCloseOnExec(fd); }

int ViewRename(const char *from, const char *to) { return g_view->base.rename(from, to); }
int ViewDropCache(int fd) { return g_view->base.dropCache(fd); }

const FileIoOps kViewFileIo = {ViewOpen,  ViewClose,     ViewSeek,           ViewRead,   ViewWrite,
                               ViewFsync, ViewFdatasync, ViewSetCloseOnExec, ViewRename, ViewDropCache};

// Reads into `in`, or writes `out`: all `length` bytes at `at`, through the
// layer in force.
bool TransferAt(int fd, int64_t at, uint8_t *in, const uint8_t *out, size_t length) {
    if (FileIo().seek(fd, at, SEEK_SET) != at) return false;
    for (size_t done = 0; done < length;) {
        ssize_t n = in != nullptr ? FileIo().read(fd, in + done, length - done)
                                  : FileIo().write(fd, out + done, length - done);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool ReadAt(int fd, int64_t at, uint8_t *buf, size_t length) {
    return TransferAt(fd, at, buf, nullptr, length);
}
bool WriteAt(int fd, int64_t at, const uint8_t *buf, size_t length) {
    return TransferAt(fd, at, nullptr, buf, length);
}

int Fail(std::string *why, const std::string &text) {
    *why = text + (errno != 0 ? std::string(": ") + strerror(errno) : "");
    return -1;
}

// Copies `length` bytes of the card file at src into a new file at dst,
// leaving holes where the source holds zeros (an index is mostly empty).
// A source shorter than length is copied as far as it goes.
int CopySparse(const std::string &src, const std::string &dst, int64_t length, std::string *why) {
    FileGuard in(FileIo().open(src.c_str(), O_RDONLY | O_CLOEXEC, 0));
    if (in.fd() < 0) return Fail(why, "cannot read " + src);
    int64_t size = std::min<int64_t>(FileIo().seek(in.fd(), 0, SEEK_END), length);
    FileGuard out(PosixFileIo().open(dst.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode),
                  &PosixFileIo());
    if (out.fd() < 0) return Fail(why, "cannot create " + dst);
    std::vector<uint8_t> chunk(kCopyChunk);
    for (int64_t at = 0; at < size; at += kCopyChunk) {
        size_t n = static_cast<size_t>(std::min<int64_t>(kCopyChunk, size - at));
        if (!ReadAt(in.fd(), at, chunk.data(), n)) return Fail(why, "cannot read " + src);
        bool zeros = std::all_of(chunk.begin(), chunk.begin() + n, [](uint8_t b) { return b == 0; });
        if (zeros) continue;
        if (PosixFileIo().seek(out.fd(), at, SEEK_SET) != at ||
            PosixFileIo().write(out.fd(), chunk.data(), n) != static_cast<ssize_t>(n))
            return Fail(why, "cannot write " + dst);
    }
    if (ftruncate(out.fd(), size) != 0 || PosixFileIo().fsync(out.fd()) != 0)
        return Fail(why, "cannot write " + dst);
    return 0;
}

// Patches that differ from the bytes of the open file.
std::vector<const FilePatch *> DifferingPatches(int fd, const CardFilePatches &p) {
    std::vector<const FilePatch *> differing;
    std::vector<uint8_t> was;
    for (const FilePatch &patch : p.patches) {
        was.resize(patch.bytes.size());
        if (!ReadAt(fd, patch.offset, was.data(), was.size()) || was != patch.bytes)
            differing.push_back(&patch);
    }
    return differing;
}

int64_t PatchEnd(const CardFilePatches &p) {
    int64_t end = 0;
    for (const FilePatch &patch : p.patches) end = std::max<int64_t>(end, patch.offset + patch.bytes.size());
    return end;
}

bool IsCardIndexFile(const CardFilePatches &p) {
    return p.name == kIndexFileName || p.name == kEventFileName;
}

int MakeDirectory(const std::string &dir, bool mustBeNew, std::string *why) {
    errno = 0;
    if (mkdir(dir.c_str(), kDirectoryMode) == 0 || (!mustBeNew && errno == EEXIST)) return 0;
    return Fail(why, "cannot create " + dir);
}

}  // namespace

void RecoveredViewInstall(const std::string &cardDir, const std::vector<CardFilePatches> &patches) {
    auto view = std::make_unique<View>();
    view->under = &FileIo();
    view->base = FileIo();
    for (const CardFilePatches &p : patches) view->files[cardDir + p.name] = p;
    g_view = std::move(view);
    SetFileIo(&kViewFileIo);
}

void RecoveredViewRemove() {
    if (g_view == nullptr) return;
    SetFileIo(g_view->under);
    g_view.reset();
}

int RecoveryBackup(const std::string &cardDir, const std::string &dir, std::string *why) {
    if (MakeDirectory(dir, true, why) != 0) return -1;
    for (const char *name : {kIndexFileName, kEventFileName}) {
        if (CardFileSize(cardDir + name) < 0) continue;  // nothing to keep
        if (CopySparse(cardDir + name, dir + "/" + name, INT64_MAX, why) != 0) return -1;
    }
    return 0;
}

int RecoveryWriteOutput(const std::string &cardDir, const std::vector<CardFilePatches> &patches,
                        const std::string &dir, std::vector<std::string> *written, std::string *why) {
    if (MakeDirectory(dir, false, why) != 0) return -1;
    for (const CardFilePatches &p : patches) {
        std::string source = cardDir + p.name;
        FileGuard card(FileIo().open(source.c_str(), O_RDONLY | O_CLOEXEC, 0));
        if (IsCardIndexFile(p)) {
            std::string target = dir + "/" + p.name;
            unlink(target.c_str());
            // The card's bytes as far as the records reach, then the records.
            if (card.fd() >= 0
                    ? CopySparse(source, target, PatchEnd(p), why) != 0
                    : FileGuard(PosixFileIo().open(target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kFileMode),
                                &PosixFileIo())
                              .fd() < 0)
                return card.fd() >= 0 ? -1 : Fail(why, "cannot create " + target);
            FileGuard out(PosixFileIo().open(target.c_str(), O_WRONLY | O_CLOEXEC, 0), &PosixFileIo());
            for (const FilePatch &patch : p.patches) {
                if (PosixFileIo().seek(out.fd(), patch.offset, SEEK_SET) != patch.offset ||
                    PosixFileIo().write(out.fd(), patch.bytes.data(), patch.bytes.size()) !=
                        static_cast<ssize_t>(patch.bytes.size()))
                    return Fail(why, "cannot write " + target);
            }
            if (ftruncate(out.fd(), p.size) != 0 || PosixFileIo().fsync(out.fd()) != 0)
                return Fail(why, "cannot write " + target);
            written->push_back(target);
            continue;
        }
        if (card.fd() >= 0 && DifferingPatches(card.fd(), p).empty()) continue;
        std::string target = dir + "/" + p.name + kKeyTableSuffix;
        FileGuard out(PosixFileIo().open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode),
                      &PosixFileIo());
        for (const FilePatch &patch : p.patches) {
            if (out.fd() < 0 || PosixFileIo().write(out.fd(), patch.bytes.data(), patch.bytes.size()) !=
                                    static_cast<ssize_t>(patch.bytes.size()))
                return Fail(why, "cannot write " + target);
        }
        written->push_back(target);
    }
    return 0;
}

int RecoveryCheckInPlace(const std::string &cardDir, const std::vector<CardFilePatches> &patches,
                         std::string *why) {
    for (const CardFilePatches &p : patches) {
        int64_t size = CardFileSize(cardDir + p.name);
        errno = 0;
        if (size < 0) return Fail(why, cardDir + p.name + " is missing; nothing was written");
        if (size < PatchEnd(p)) {
            return Fail(why, cardDir + p.name + " is " + std::to_string(size) +
                                 " bytes, too short for its records (" + std::to_string(PatchEnd(p)) +
                                 "); it cannot be grown in place; nothing was written");
        }
    }
    return 0;
}

int64_t RecoveryWriteInPlace(const std::string &cardDir, const std::vector<CardFilePatches> &patches,
                             std::string *why) {
    if (RecoveryCheckInPlace(cardDir, patches, why) != 0) return -1;
    // Key-frame tables, then the event file, the index last; inside a
    // file from the back, so the index header goes last of all.
    std::vector<const CardFilePatches *> order;
    for (const CardFilePatches &p : patches) order.push_back(&p);
    std::stable_sort(order.begin(), order.end(), [](const CardFilePatches *a, const CardFilePatches *b) {
        auto rank = [](const CardFilePatches *p) {
            return p->name == kIndexFileName ? 2 : p->name == kEventFileName ? 1 : 0;
        };
        return rank(a) < rank(b);
    });
    int64_t total = 0;
    for (const CardFilePatches *p : order) {
        std::string path = cardDir + p->name;
        FileGuard fd(FileIo().open(path.c_str(), O_RDWR | O_CLOEXEC, 0));
        if (fd.fd() < 0) return Fail(why, "cannot open " + path + " for writing");
        std::vector<const FilePatch *> differing = DifferingPatches(fd.fd(), *p);
        for (auto it = differing.rbegin(); it != differing.rend(); ++it) {
            if (!WriteAt(fd.fd(), (*it)->offset, (*it)->bytes.data(), (*it)->bytes.size()))
                return Fail(why, "cannot write " + path);
            total += static_cast<int64_t>((*it)->bytes.size());
        }
        if (!differing.empty() && FileIo().fsync(fd.fd()) != 0) return Fail(why, "cannot flush " + path);
    }
    return total;
}
