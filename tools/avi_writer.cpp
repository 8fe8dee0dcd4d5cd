#include "tools/avi_writer.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common/file_io.h"

namespace {

// Header words.
constexpr uint32_t kHdrlListSize = 492;
constexpr uint32_t kMainHeaderSize = 56;
constexpr uint32_t kMicrosPerSecond = 1000000;
constexpr uint32_t kMaxBytesPerSecond = 0x0FFFFFFF;
constexpr uint32_t kMainHeaderFlags = 0x910;  // has index, interleaved, trust chunk type
constexpr uint32_t kSuggestedBufferSize = 0x100000;
constexpr uint32_t kVideoStrlSize = 116;
constexpr uint32_t kStreamHeaderSize = 56;
constexpr uint32_t kVideoScale = 1000;
constexpr uint32_t kQualityDefault = 0xFFFFFFFF;
constexpr uint32_t kBitmapInfoSize = 40;
constexpr uint16_t kBitCount = 24;
constexpr uint32_t kAudioStrlSize = 96;
constexpr uint32_t kAudioScale = 2;
constexpr uint32_t kAudioSampleSize = 2;
constexpr uint32_t kWaveFormatSize = 20;
constexpr uint16_t kAudioBlockAlign = 2;
constexpr uint16_t kAudioBitsPerSample = 16;
constexpr uint16_t kWaveExtraSize = 20;
constexpr int kChunkHeaderSize = 8;
constexpr int kIndexCopyRecords = 256;

AviContext *g_aviContext = nullptr;

// Little-endian writer over the header buffer.
class HeaderBytes {
public:
    explicit HeaderBytes(uint8_t *out) : out_(out) {}
    HeaderBytes &Tag(const char *fourcc) { return Bytes(fourcc, 4); }
    HeaderBytes &U32(uint32_t value) { return Bytes(&value, sizeof(value)); }
    HeaderBytes &U16(uint16_t value) { return Bytes(&value, sizeof(value)); }
    HeaderBytes &Zero(int count) {
        std::memset(out_ + used_, 0, count);
        used_ += count;
        return *this;
    }
    int used() const { return used_; }

private:
    HeaderBytes &Bytes(const void *data, int count) {
        std::memcpy(out_ + used_, data, count);
        used_ += count;
        return *this;
    }
    uint8_t *out_;
    int used_ = 0;
};

const char *CodecTag(const AviContext &ctx) { return ctx.iCodec == kAviCodecH265 ? "hev1" : "h264"; }

void MainHeader(HeaderBytes &h, const AviContext &ctx) {
    h.Tag("avih").U32(kMainHeaderSize);
    h.U32(kMicrosPerSecond / ctx.u32FrameRate).U32(kMaxBytesPerSecond).U32(0).U32(kMainHeaderFlags);
    h.U32(ctx.u32TotalFrames).U32(0).U32(ctx.u32AudioChannels != 0 ? 2 : 1).U32(kSuggestedBufferSize);
    h.U32(ctx.u32Width).U32(ctx.u32Height).Zero(16);
}

void VideoStreamList(HeaderBytes &h, const AviContext &ctx) {
    uint32_t pixels = ctx.u32Width * ctx.u32Height;
    h.Tag("LIST").U32(kVideoStrlSize).Tag("strl");
    h.Tag("strh").U32(kStreamHeaderSize).Tag("vids").Tag(CodecTag(ctx)).U32(0).U16(0).U16(0).U32(0);
    h.U32(kVideoScale).U32(kVideoScale * ctx.u32FrameRate).U32(0).U32(0).U32(kSuggestedBufferSize);
    h.U32(kQualityDefault).U32(pixels);
    h.U16(0).U16(0).U16(static_cast<uint16_t>(ctx.u32Width)).U16(static_cast<uint16_t>(ctx.u32Height));
    h.Tag("strf").U32(kBitmapInfoSize).U32(kBitmapInfoSize).U32(ctx.u32Width).U32(ctx.u32Height);
    h.U16(1).U16(kBitCount).Tag(CodecTag(ctx)).U32(pixels).Zero(16);
}

void AudioStreamList(HeaderBytes &h, const AviContext &ctx) {
    h.Tag("LIST").U32(kAudioStrlSize).Tag("strl");
    h.Tag("strh").U32(kStreamHeaderSize).Tag("auds").U32(0).U32(0).U16(0).U16(0).U32(0);
    h.U32(kAudioScale).U32(ctx.u32AudioRate).U32(0).U32(ctx.u32AudioBytes).U32(0);
    h.U32(kQualityDefault).U32(kAudioSampleSize).Zero(8);
    h.Tag("strf").U32(kWaveFormatSize).U16(static_cast<uint16_t>(ctx.u32AudioFormat));
    h.U16(static_cast<uint16_t>(ctx.u32AudioChannels)).U32(ctx.u32AudioRate).U32(2 * ctx.u32AudioBytes);
    h.U16(kAudioBlockAlign).U16(kAudioBitsPerSample).U16(kWaveExtraSize).Zero(2);
}

// Index entry of the chunk about to be written at the current AVI position.
int WriteIndexEntry(AviContext &ctx, const char *id, uint32_t length) {
    int64_t offset = AviTell(ctx.iAviFd);
    uint32_t entry[4];
    std::memcpy(&entry[0], id, 4);
    entry[1] = 0;
    entry[2] = static_cast<uint32_t>(offset);
    entry[3] = length;
    if (offset < 0 || !AviWriteAll(ctx.iIndexFd, entry, sizeof(entry))) return -1;
    ctx.iIndexSize = static_cast<int32_t>(AviTell(ctx.iIndexFd));
    return 0;
}

int WriteChunk(AviContext &ctx, const char *id, const void *data, uint32_t length) {
    if (WriteIndexEntry(ctx, id, length) != 0) return -1;
    uint8_t head[kChunkHeaderSize];
    std::memcpy(head, id, 4);
    std::memcpy(head + 4, &length, 4);
    static const uint8_t kPad = 0;
    bool odd = (length & 1) != 0;
    if (!AviWriteAll(ctx.iAviFd, head, sizeof(head)) ||
        !AviWriteAll(ctx.iAviFd, data, static_cast<int>(length)) ||
        (odd && !AviWriteAll(ctx.iAviFd, &kPad, 1))) {
        return -1;
    }
    ctx.iMoviDataSize += static_cast<int32_t>(length + kChunkHeaderSize + (odd ? 1 : 0));
    return 0;
}

// Copies the temporary index behind "idx1", whole 16-byte entries only.
bool CopyIndex(AviContext &ctx) {
    if (FileIo().seek(ctx.iIndexFd, 0, SEEK_SET) < 0) return false;
    uint8_t block[kAviIndexEntrySize * kIndexCopyRecords];
    for (;;) {
        int got = AviReadSome(ctx.iIndexFd, block, sizeof(block));
        int whole = got - got % kAviIndexEntrySize;
        if (whole > 0 && !AviWriteAll(ctx.iAviFd, block, whole)) return false;
        if (got < static_cast<int>(sizeof(block))) return true;
    }
}

}  // namespace

void AviBuildHeader(const AviContext &ctx, uint8_t *out) {
    HeaderBytes h(out);
    uint32_t moviSize = static_cast<uint32_t>(ctx.iMoviDataSize);
    h.Tag("RIFF").U32(kAviHeaderSize + moviSize + static_cast<uint32_t>(ctx.iIndexSize)).Tag("AVI ");
    h.Tag("LIST").U32(kHdrlListSize).Tag("hdrl");
    MainHeader(h, ctx);
    VideoStreamList(h, ctx);
    if (ctx.u32AudioChannels != 0) AudioStreamList(h, ctx);
    int junkAt = h.used();
    h.Tag("JUNK").U32(static_cast<uint32_t>(kAviHeaderSize - junkAt - kChunkHeaderSize));
    h.Zero(kAviHeaderSize - h.used());
    h.Tag("LIST").U32(moviSize + 4).Tag("movi");
}

int AviWriteHeader(const AviContext &ctx) {
    uint8_t header[kAviHeaderWriteSize];
    AviBuildHeader(ctx, header);
    if (FileIo().seek(ctx.iAviFd, 0, SEEK_SET) != 0) return -1;
    return AviWriteAll(ctx.iAviFd, header, sizeof(header)) ? 0 : -1;
}

int AviFinishFile(AviContext &ctx) {
    uint8_t head[kChunkHeaderSize];
    std::memcpy(head, "idx1", 4);
    std::memcpy(head + 4, &ctx.iIndexSize, 4);
    if (FileIo().seek(ctx.iAviFd, 0, SEEK_END) < 0 || !AviWriteAll(ctx.iAviFd, head, sizeof(head))) return -1;
    if (!CopyIndex(ctx)) return -1;
    return AviWriteHeader(ctx);
}

int H264ToAviStart(const char *path, int codec, int width, int height, int frameRate, int audioFormat,
                   int audioChannels, int audioRate, int audioBits) {
    if (frameRate < 1) return -1;
    // An export still open is finished first rather than abandoned.
    if (g_aviContext != nullptr) H264ToAviStop();
    AviContext *ctx = AviCreateContext(kAviModeWrite);
    if (ctx == nullptr) return -1;
    ctx->iCodec = codec;
    ctx->u32Width = static_cast<uint32_t>(width);
    ctx->u32Height = static_cast<uint32_t>(height);
    ctx->u32FrameRate = static_cast<uint32_t>(frameRate);
    ctx->u32AudioFormat = static_cast<uint32_t>(audioFormat);
    ctx->u32AudioChannels = static_cast<uint32_t>(audioChannels);
    ctx->u32AudioRate = static_cast<uint32_t>(audioRate);
    ctx->u32AudioBits = static_cast<uint32_t>(audioBits);
    if (audioChannels != 0) {
        printf("[audio fmt:%d chans:%d rate:%d bits:%d] \n", audioFormat, audioChannels, audioRate,
               audioBits);
    } else {
        printf("[NO audio] %s %d \n", __func__, __LINE__);
    }
    g_aviContext = ctx;
    // A file that cannot be created (or given its header) is left closed:
    // the frame writes then refuse.
    if (AviOpen(ctx, path) == 0 && AviWriteHeader(*ctx) != 0) AviClose(ctx);
    return 0;
}

int H264ToAviWriteFrame(const void *data, uint32_t length, int kind) {
    AviContext *ctx = g_aviContext;
    if (ctx == nullptr || ctx->iAviFd < 0 || ctx->iIndexFd < 0) return -1;
    if (kind == kAviFrameVideo) {
        if (WriteChunk(*ctx, "00db", data, length) != 0) return -1;
        ctx->u32VideoCount++;
        ctx->u32TotalFrames++;
    } else if (kind == kAviFrameAudio) {
        if (WriteChunk(*ctx, "01wb", data, length) != 0) return -1;
        ctx->u32AudioCount++;
        ctx->u32AudioBytes += length;
    }
    return 0;
}

int H264ToAviStop() {
    if (g_aviContext == nullptr) return -1;
    printf("[IN]%s %d\n", __func__, __LINE__);
    AviContext *ctx = g_aviContext;
    int result = ctx->iAviFd >= 0 && ctx->iIndexFd >= 0 ? AviFinishFile(*ctx) : 0;
    AviRelease(ctx);
    g_aviContext = nullptr;
    printf("[OUT]%s %d\n", __func__, __LINE__);
    return result;
}
