#include "tools/avi_reader.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common/file_io.h"

namespace {

constexpr int kChunkHeadSize = 12;
// The walk over the top-level chunks logs as part of the head's parse.
constexpr const char kParserHeadFunction[] = "AF_ParserHead";
constexpr int kMainHeaderReadSize = 64;
constexpr uint32_t kMicrosPerSecond = 1000000;

// id, size and the first word after it (the list type of a LIST).
struct ChunkHead {
    char id[4];    // chunk id
    int32_t size;  // payload size
    char type[4];  // list type, or the first payload bytes
};
static_assert(sizeof(ChunkHead) == kChunkHeadSize);

bool ReadChunkHead(int fd, ChunkHead *head) {
    return AviReadSome(fd, head, kChunkHeadSize) == kChunkHeadSize;
}

bool Is(const char *fourcc, const char *tag) { return std::memcmp(fourcc, tag, 4) == 0; }

void PrintChunk(const char *function, int line, const ChunkHead &h) {
    printf("DEBUG: %s-%d -> Flag=%c%c%c%c Size=%d Type=%c%c%c%c \n", function, line, h.id[0], h.id[1],
           h.id[2], h.id[3], h.size, h.type[0], h.type[1], h.type[2], h.type[3]);
}

uint32_t WordAt(const uint8_t *bytes, int offset) {
    uint32_t word;
    std::memcpy(&word, bytes + offset, sizeof(word));
    return word;
}

int64_t EvenSize(int64_t size) { return size + (size & 1); }

// Top-level walk from offset 12 up to the RIFF size: remembers where hdrl,
// movi and idx1 are. Lists are entered rather than skipped, and sizes are
// not rounded to even.
bool WalkTopLevel(AviContext &ctx) {
    uint8_t riff[kChunkHeadSize];
    if (FileIo().seek(ctx.iAviFd, 0, SEEK_SET) != 0 ||
        AviReadSome(ctx.iAviFd, riff, kChunkHeadSize) != kChunkHeadSize ||
        !Is(reinterpret_cast<char *>(riff), "RIFF")) {
        return false;
    }
    ctx.u32RiffSize = WordAt(riff, 4);
    ctx.iHeaderSize = ctx.iMoviDataSize = ctx.iIndexSize = -1;
    int64_t end = static_cast<int64_t>(ctx.u32RiffSize) + kChunkHeadSize;
    for (int64_t pos = kChunkHeadSize; pos < end; pos = AviTell(ctx.iAviFd)) {
        ChunkHead h;
        if (!ReadChunkHead(ctx.iAviFd, &h) || h.size < 0) return false;
        PrintChunk(kParserHeadFunction, __LINE__, h);
        int32_t after = static_cast<int32_t>(pos + kChunkHeadSize);
        if (Is(h.type, "hdrl")) {
            ctx.iHeaderSize = after - 4;
            ctx.iHdrlSize = h.size;
        } else if (Is(h.type, "movi")) {
            ctx.iMoviDataSize = after;
            ctx.iMoviSize = h.size;
        } else if (Is(h.id, "idx1")) {
            ctx.iIndexSize = after - 4;
            ctx.iIdx1Size = h.size;
            break;
        } else if (!AviSkip(ctx.iAviFd, int64_t{h.size} - 4)) {
            return false;
        }
    }
    return true;
}

// The main-header words, counted from the hdrl type word: these are the
// avih size, flags, suggested buffer size and width, reported as frame-rate
// divisor, total frames, width and height. Players of these files expect
// exactly these numbers.
bool ReadMainHeaderWords(AviContext &ctx) {
    uint8_t words[kMainHeaderReadSize];
    if (FileIo().seek(ctx.iAviFd, ctx.iHeaderSize, SEEK_SET) != ctx.iHeaderSize ||
        AviReadSome(ctx.iAviFd, words, kMainHeaderReadSize) != kMainHeaderReadSize) {
        return false;
    }
    uint32_t divisor = WordAt(words, 8);
    ctx.u32FrameRate = divisor != 0 ? kMicrosPerSecond / divisor : 0;
    ctx.u32TotalFrames = WordAt(words, 24);
    ctx.u32Width = WordAt(words, 40);
    ctx.u32Height = WordAt(words, 44);
    return true;
}

bool WriteIndexEntry(AviContext &ctx, const char *id, uint32_t offset, uint32_t size) {
    uint32_t entry[4];
    std::memcpy(&entry[0], id, 4);
    entry[1] = 0;
    entry[2] = offset;
    entry[3] = size;
    return AviWriteAll(ctx.iIndexFd, entry, sizeof(entry));
}

// Positions just after the "movi" type word, walking headers from the start.
bool FindMovi(AviContext &ctx) {
    ChunkHead h;
    if (FileIo().seek(ctx.iAviFd, 0, SEEK_SET) != 0 || !ReadChunkHead(ctx.iAviFd, &h) || !Is(h.id, "RIFF") ||
        std::memcmp(h.type, "AVI", 3) != 0) {
        return false;
    }
    for (;;) {
        // A negative size would step back to an earlier header for ever.
        if (!ReadChunkHead(ctx.iAviFd, &h) || h.size < 0) return false;
        if (Is(h.type, "movi")) return true;
        if (!AviSkip(ctx.iAviFd, int64_t{h.size} - 4)) return false;
    }
}

}  // namespace

AviContext *AF_Open(const char *path) {
    AviContext *ctx = AviCreateContext(kAviModeRead);
    if (ctx == nullptr) return nullptr;
    if (AviOpen(ctx, path) != 0 || AF_ParserHead(ctx) != 0 || AF_ParserIndex(ctx) != 0 ||
        AF_SeekToFrame(ctx, 0) != 0) {
        AviRelease(ctx);
        return nullptr;
    }
    return ctx;
}

int AF_Close(AviContext *ctx) { return AviRelease(ctx); }

int AF_ParserHead(AviContext *ctx) {
    if (ctx == nullptr || ctx->iAviFd < 0) return -1;
    bool parsed =
        WalkTopLevel(*ctx) && ctx->iHeaderSize >= 0 && ctx->iMoviDataSize >= 0 && ReadMainHeaderWords(*ctx);
    if (!parsed) {
        printf("DEBUG: %s-%d -> parse avi head failed!\n", __func__, __LINE__);
        return -1;
    }
    printf("DEBUG: %s-%d -> parse avi head success!\n", __func__, __LINE__);
    return 0;
}

int AF_ParserIndex(AviContext *ctx) {
    if (ctx == nullptr || ctx->iAviFd < 0 || ctx->iIndexFd < 0) return -1;
    if (ctx->iIndexSize >= 0) return FileIo().seek(ctx->iIndexFd, 0, SEEK_SET) == 0 ? 0 : -1;
    if (FileIo().seek(ctx->iAviFd, ctx->iMoviDataSize, SEEK_SET) < 0) return -1;
    for (;;) {
        int64_t at = AviTell(ctx->iAviFd);
        char head[8];
        int got = AviReadSome(ctx->iAviFd, head, sizeof(head));
        // A file cut off after a whole chunk (an export that never finished)
        // still reads up to there.
        if (got == 0) return 0;
        int32_t size;
        std::memcpy(&size, head + 4, sizeof(size));
        if (got != static_cast<int>(sizeof(head)) || size < 0) return -1;
        if (size == 0 || (!Is(head, "00db") && !Is(head, "01wb"))) return 0;
        if (!WriteIndexEntry(*ctx, head, static_cast<uint32_t>(at), static_cast<uint32_t>(size))) return -1;
        char id[5] = {head[0], head[1], head[2], head[3], '\0'};
        printf("DEBUG: %s-%d -> %s--%d\n", __func__, __LINE__, id, size);
        if (!AviSkip(ctx->iAviFd, EvenSize(size))) return 0;
    }
}

int AF_SeekToFrame(AviContext *ctx, int n) {
    if (ctx == nullptr || ctx->iAviFd < 0) return -1;
    ctx->u32VideoCount = ctx->u32AudioCount = ctx->u32ChunkCount = 0;
    if (!FindMovi(*ctx)) return -1;
    for (;;) {
        ChunkHead h;
        if (!ReadChunkHead(ctx->iAviFd, &h)) return 0;
        if (h.size < 1) return -1;
        PrintChunk(__func__, __LINE__, h);
        // The counters are swapped here against the writer and
        // AF_GetNextFrame; the frame numbers readers report depend on it.
        if (Is(h.id, "01wb")) {
            printf("DEBUG: %s-%d -> audio frame..%d\n", __func__, __LINE__, ctx->u32VideoCount++);
        } else if (Is(h.id, "00db")) {
            printf("DEBUG: %s-%d -> video frame..%d\n", __func__, __LINE__, ctx->u32AudioCount++);
        }
        ctx->u32ChunkCount++;
        if (ctx->u32ChunkCount - 1 == static_cast<uint32_t>(n))
            return AviSkip(ctx->iAviFd, -kChunkHeadSize) ? 0 : -1;
        if (!AviSkip(ctx->iAviFd, EvenSize(h.size) - 4)) {
            printf("DEBUG: %s-%d -> file end!\n", __func__, __LINE__);
            return -1;
        }
    }
}

int AF_GetNextFrame(AviContext *ctx, uint8_t *buffer, uint32_t *length, int *kind, uint32_t *number) {
    if (ctx == nullptr || ctx->iAviFd < 0 || buffer == nullptr || length == nullptr) return -1;
    ChunkHead h;
    if (!ReadChunkHead(ctx->iAviFd, &h) || h.size < 1) return -1;
    int chunkKind;
    uint32_t chunkNumber;
    if (Is(h.id, "00db")) {
        chunkKind = kAviFrameVideo;
        chunkNumber = ctx->u32VideoCount++;
    } else if (Is(h.id, "01wb")) {
        chunkKind = kAviFrameAudio;
        chunkNumber = ctx->u32AudioCount++;
    } else {
        PrintChunk(__func__, __LINE__, h);
        return -1;
    }
    ctx->u32ChunkCount++;
    if (!AviSkip(ctx->iAviFd, -4)) return -1;
    uint32_t want = *length < static_cast<uint32_t>(h.size) ? *length : static_cast<uint32_t>(h.size);
    int got = AviReadSome(ctx->iAviFd, buffer, static_cast<int>(want));
    if (got != static_cast<int>(want)) {
        printf("DEBUG: %s-%d -> fraem read failed!\n", __func__, __LINE__);
        AviSkip(ctx->iAviFd, -(kChunkHeadSize + got));
        return -1;
    }
    *length = want;
    if ((h.size & 1) != 0) AviSkip(ctx->iAviFd, 1);
    if (kind != nullptr) *kind = chunkKind;
    if (number != nullptr) *number = chunkNumber;
    return 0;
}
