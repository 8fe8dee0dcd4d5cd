#include "tools/avi_context.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/file_io.h"

namespace {

constexpr mode_t kNewFileMode = 0666;

int OpenFile(const char *path, int flags) {
    int fd = FileIo().open(path, flags, kNewFileMode);
    if (fd >= 0) FileIo().setCloseOnExec(fd);
    return fd;
}

void CloseFile(int &fd) {
    if (fd >= 0) FileIo().close(fd);
    fd = -1;
}

// The reader never writes the AVI file itself.
int AviFileFlags(int mode) { return mode == kAviModeWrite ? O_RDWR | O_CREAT | O_TRUNC : O_RDONLY; }

}  // namespace

AviContext *AviCreateContext(int mode) {
    auto *ctx = static_cast<AviContext *>(std::calloc(1, sizeof(AviContext)));
    if (ctx == nullptr) return nullptr;
    ctx->iMode = mode;
    ctx->iAviFd = -1;
    ctx->iIndexFd = -1;
    ctx->u32FrameRate = kAviDefaultFrameRate;
    ctx->iHeaderSize = kAviHeaderSize;
    return ctx;
}

int AviOpen(AviContext *ctx, const char *path) {
    if (ctx == nullptr || path == nullptr || ctx->iAviFd >= 0) return -1;
    // A cut index path could name (and later remove) some other file.
    size_t length = std::strlen(path);
    if (length + sizeof(kAviIndexSuffix) > sizeof(ctx->szIndexPath)) return -1;
    std::memcpy(ctx->szPath, path, length + 1);
    std::memcpy(ctx->szIndexPath, path, length);
    std::memcpy(ctx->szIndexPath + length, kAviIndexSuffix, sizeof(kAviIndexSuffix));
    ctx->iIndexFd = OpenFile(ctx->szIndexPath, O_RDWR | O_CREAT | O_TRUNC);
    if (ctx->iIndexFd >= 0) ctx->iAviFd = OpenFile(ctx->szPath, AviFileFlags(ctx->iMode));
    if (ctx->iAviFd >= 0) return 0;
    AviClose(ctx);
    return -1;
}

void AviClose(AviContext *ctx) {
    bool indexCreated = ctx->iIndexFd >= 0;
    CloseFile(ctx->iAviFd);
    CloseFile(ctx->iIndexFd);
    if (indexCreated) unlink(ctx->szIndexPath);
}

int AviRelease(AviContext *ctx) {
    if (ctx == nullptr) return -1;
    AviClose(ctx);
    std::free(ctx);
    return 0;
}

int AviReadSome(int fd, void *buf, int length) {
    int done = 0;
    while (done < length) {
        ssize_t n = FileIo().read(fd, static_cast<char *>(buf) + done, length - done);
        if (n <= 0) break;
        done += static_cast<int>(n);
    }
    return done;
}

bool AviWriteAll(int fd, const void *buf, int length) {
    int done = 0;
    while (done < length) {
        ssize_t n = FileIo().write(fd, static_cast<const char *>(buf) + done, length - done);
        if (n <= 0) return false;
        done += static_cast<int>(n);
    }
    return true;
}

int64_t AviTell(int fd) { return FileIo().seek(fd, 0, SEEK_CUR); }

bool AviSkip(int fd, int64_t offset) { return FileIo().seek(fd, offset, SEEK_CUR) >= 0; }
