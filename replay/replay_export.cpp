#include "replay/replay_export.h"

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "avrecord_lib/ps_packetizer.h"
#include "tools/avi_context.h"
#include "tools/avi_writer.h"

namespace {

// A range reaching the present ends once the recorder has brought nothing
// new for this many waits of this long.
constexpr int kWaitsAtTheEnd = 10;
constexpr std::chrono::milliseconds kWait{100};
constexpr uint32_t kChunkHeaderSize = 8;
constexpr uint32_t kIndexEntrySize = 16;
constexpr uint32_t kAudioChunk = 0x80000000u;  // chunk list: the chunk is audio; the rest is its length
constexpr uint32_t kDefaultFrameRate = 25;

// WAVE format tags of the card's audio codecs.
constexpr uint32_t kWaveMuLaw = 7;
constexpr uint32_t kWaveALaw = 6;
constexpr uint32_t kWaveAac = 0xFF;

// The next unit, waiting a moment for the recorder at the present.
int NextUnit(ReplaySource &source, ReplayUnit *unit) {
    for (int waits = 0;; ++waits) {
        int r = source.Next(unit);
        if (r != kReplayWaiting) return r;
        if (waits == kWaitsAtTheEnd) return kReplayDone;
        std::this_thread::sleep_for(kWait);
    }
}

int SendRecorded(const ReplayCard &card, uint64_t startUs, uint64_t endUs, const std::function<bool()> &begin,
                 const ReplaySink &sink) {
    std::unique_ptr<ReplaySource> source = ReplayOpenRecorded(card, startUs, endUs);
    if (source == nullptr) return kExportFailed;
    ReplayUnit unit;
    int r = NextUnit(*source, &unit);
    if (r != kReplayUnit) return r == kReplayDone ? kExportEmpty : kExportFailed;
    if (!begin()) return kExportFailed;
    do {
        if (!sink(unit.data.data(), unit.data.size())) return kExportFailed;
    } while ((r = NextUnit(*source, &unit)) == kReplayUnit);
    return r == kReplayDone ? kExportDone : kExportFailed;
}

uint32_t WaveFormat(int codec) {
    if (codec == kAudioCodecG711U) return kWaveMuLaw;
    if (codec == kAudioCodecG711A) return kWaveALaw;
    return kWaveAac;
}

// The AVI's header fields for what the range holds.
AviContext AviFor(const ReplayTracks &tracks) {
    AviContext ctx{};
    ctx.iMode = kAviModeWrite;
    ctx.iAviFd = ctx.iIndexFd = -1;
    ctx.iHeaderSize = kAviHeaderSize;
    ctx.iCodec = tracks.iVideoCodec == kVideoCodecH265 ? kAviCodecH265 : kAviCodecH264;
    ctx.u32FrameRate = tracks.u32FrameRate != 0 ? tracks.u32FrameRate : kDefaultFrameRate;
    ctx.u32Width = tracks.u16Width;
    ctx.u32Height = tracks.u16Height;
    if (tracks.bHasAudio) {
        ctx.u32AudioFormat = WaveFormat(tracks.iAudioCodec);
        ctx.u32AudioChannels = tracks.u32AudioChannels;
        ctx.u32AudioRate = tracks.u32AudioRate;
    }
    return ctx;
}

uint32_t Padded(uint32_t length) { return length + (length & 1); }

// First pass: the chunks the AVI will hold, and the counters of its header.
int Survey(const ReplayCard &card, uint64_t startUs, uint64_t endUs, AviContext *ctx,
           std::vector<uint32_t> *chunks) {
    std::unique_ptr<ReplaySource> source = ReplayOpen(card, startUs, endUs, false);
    if (source == nullptr) return kExportFailed;
    ReplayUnit unit;
    int r;
    while ((r = NextUnit(*source, &unit)) == kReplayUnit) {
        uint32_t length = static_cast<uint32_t>(unit.data.size());
        if (!unit.bVideo && ctx->u32AudioChannels == 0) continue;
        chunks->push_back(unit.bVideo ? length : (length | kAudioChunk));
        ctx->iMoviDataSize += static_cast<int32_t>(kChunkHeaderSize + Padded(length));
        ctx->iIndexSize += static_cast<int32_t>(kIndexEntrySize);
        if (unit.bVideo)
            ++ctx->u32TotalFrames;
        else
            ctx->u32AudioBytes += length;
    }
    if (r != kReplayDone) return kExportFailed;
    return chunks->empty() ? kExportEmpty : kExportDone;
}

bool SendChunkHead(const ReplaySink &sink, const char *id, uint32_t length) {
    uint8_t head[kChunkHeaderSize];
    std::memcpy(head, id, 4);
    std::memcpy(head + 4, &length, 4);
    return sink(head, sizeof(head));
}

// Second pass: the header, the chunks as surveyed, and the index.
int SendAvi(const ReplayCard &card, uint64_t startUs, uint64_t endUs, const AviContext &ctx,
            const std::vector<uint32_t> &chunks, const ReplaySink &sink) {
    uint8_t header[kAviHeaderWriteSize];
    AviBuildHeader(ctx, header);
    if (!sink(header, sizeof(header))) return kExportFailed;
    std::unique_ptr<ReplaySource> source = ReplayOpen(card, startUs, endUs, false);
    if (source == nullptr) return kExportFailed;
    static const uint8_t kPad = 0;
    ReplayUnit unit;
    for (uint32_t chunk : chunks) {
        do {
            if (NextUnit(*source, &unit) != kReplayUnit) return kExportFailed;
        } while (!unit.bVideo && ctx.u32AudioChannels == 0);
        uint32_t length = static_cast<uint32_t>(unit.data.size());
        // The card changed between the passes (the recorder started the
        // file over): the download ends short rather than wrong.
        if (chunk != (unit.bVideo ? length : (length | kAudioChunk))) return kExportFailed;
        if (!SendChunkHead(sink, unit.bVideo ? "00db" : "01wb", length) || !sink(unit.data.data(), length) ||
            ((length & 1) != 0 && !sink(&kPad, 1))) {
            return kExportFailed;
        }
    }
    if (!SendChunkHead(sink, "idx1", static_cast<uint32_t>(ctx.iIndexSize))) return kExportFailed;
    uint32_t offset = kAviHeaderWriteSize;
    for (uint32_t chunk : chunks) {
        uint32_t length = chunk & ~kAudioChunk;
        uint32_t entry[4] = {0, 0, offset, length};
        std::memcpy(&entry[0], (chunk & kAudioChunk) != 0 ? "01wb" : "00db", 4);
        if (!sink(reinterpret_cast<const uint8_t *>(entry), sizeof(entry))) return kExportFailed;
        offset += kChunkHeaderSize + Padded(length);
    }
    return kExportDone;
}

}  // namespace

int ReplayExport(const ReplayCard &card, uint64_t startUs, uint64_t endUs, ReplayFormat format,
                 const std::function<bool()> &begin, const ReplaySink &sink) {
    if (format == ReplayFormat::kPs) return SendRecorded(card, startUs, endUs, begin, sink);
    ReplayTracks tracks;
    if (ReplayDescribe(card, static_cast<uint32_t>(startUs / 1000000), static_cast<uint32_t>(endUs / 1000000),
                       &tracks) != 0) {
        return kExportEmpty;
    }
    AviContext ctx = AviFor(tracks);
    std::vector<uint32_t> chunks;
    int surveyed = Survey(card, startUs, endUs, &ctx, &chunks);
    if (surveyed != kExportDone) return surveyed;
    if (!begin()) return kExportFailed;
    return SendAvi(card, startUs, endUs, ctx, chunks, sink);
}
