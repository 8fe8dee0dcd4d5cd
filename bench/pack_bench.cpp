// Per-frame cost of recording: the packetizer alone (key and other frames),
// the frame writer on a card in tmpfs (PS write, key-frame entry and the
// three index writes per frame), and the playback reader walking it back.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/playback_reader.h"
#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_section.h"

namespace {

constexpr size_t kOtherFrameSize = 20000;  // about 4 Mbit/s at 25 fps
constexpr size_t kKeyFrameSize = 150000;

std::vector<uint8_t> Frame(uint8_t nalHeader, size_t size) {
    std::vector<uint8_t> frame(size, 0x5A);
    const uint8_t start[] = {0, 0, 0, 1, nalHeader, 0x9A};
    memcpy(frame.data(), start, sizeof start);
    return frame;
}

std::vector<uint8_t> KeyFrame() {
    std::vector<uint8_t> frame = {0, 0, 0, 1, 0x67, 0x64, 0, 0x28, 0, 0, 0, 1, 0x68, 0xEE, 0x3C, 0x80};
    std::vector<uint8_t> idr = Frame(0x65, kKeyFrameSize);
    frame.insert(frame.end(), idr.begin(), idr.end());
    return frame;
}

const PSStreamParam kParam = {kVideoCodecH264, kAudioCodecG711U, 1920, 1080, 0, 0, 8000, 33000};

void BM_PackOtherFrame(benchmark::State &state) {
    std::vector<uint8_t> frame = Frame(0x41, kOtherFrameSize);
    std::vector<uint8_t> out(PSFrameBufferSize(frame.size()));
    uint32_t n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(makePFrameHeader(frame.data(), frame.size(), out.data(), ++n, 0, 0));
    }
    state.SetBytesProcessed(state.iterations() * frame.size());
}
BENCHMARK(BM_PackOtherFrame);

void BM_PackKeyFrame(benchmark::State &state) {
    std::vector<uint8_t> frame = KeyFrame();
    std::vector<uint8_t> out(PSFrameBufferSize(frame.size()));
    uint32_t n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            makeIFrameHeader(frame.data(), frame.size(), out.data(), ++n, 0, &kParam, 0));
    }
    state.SetBytesProcessed(state.iterations() * frame.size());
}
BENCHMARK(BM_PackKeyFrame);

// A one-file card in /dev/shm with an open section.
class TmpfsCard {
public:
    TmpfsCard() {
        char pattern[] = "/dev/shm/avr-pack-bench-XXXXXX";
        dir_ = mkdtemp(pattern) != nullptr ? std::string(pattern) + "/" : "";
        Sparse("index000.bin", kIndexFileSize);
        Sparse("hi000000.mp4", kMediaFileSize);
        AV_RecordConfigInfoInit(GetRecordConfigInfo(), 0, 1);
        memset(GetFileInfoHead(), 0, sizeof(FileInfoHead));
        AV_RecordFileConfigParamGet(GetRecordConfigInfo(), GetFileInfoHead(), GetSectionInfoHead(), 1);
        LS_RecordSetCardDir(dir_.c_str());
        LS_RecordSetEncodingSource(Encoding);
        ok_ = LS_RecordInit(GetFileInfoHead(), 0) == 0;
    }
    ~TmpfsCard() {
        LS_RecordClose();
        LS_RecordSetCardDir(nullptr);
        LS_RecordSetEncodingSource(nullptr);
        unlink((dir_ + "index000.bin").c_str());
        unlink((dir_ + "hi000000.mp4").c_str());
        rmdir(dir_.c_str());
    }
    bool ok() const { return ok_; }
    std::string Media() const { return dir_ + "hi000000.mp4"; }

private:
    static int Encoding(int, RecordEncodingInfo *info) {
        *info = RecordEncodingInfo{1920, 1080, 25, 0, 0, 0, 0, 0, 0, 0};
        return 0;
    }
    void Sparse(const char *name, off_t size) {
        int fd = open((dir_ + name).c_str(), O_RDWR | O_CREAT, 0644);
        if (fd >= 0 && ftruncate(fd, size) == 0) ok_ = true;
        if (fd >= 0) close(fd);
    }
    std::string dir_;
    bool ok_ = false;
};

int WriteFrame(const std::vector<uint8_t> &frame) {
    AVDataInfo info{};
    info.AVDataLen = static_cast<int32_t>(frame.size());
    return libAVRecordWriteFrame(0, kFrameKindVideo, frame.data(), &info);
}

// 25 fps with a key frame every 50 frames; stops before the file is full.
void BM_WriteFramesToTmpfsCard(benchmark::State &state) {
    TmpfsCard card;
    if (!card.ok()) {
        state.SkipWithError("no card in /dev/shm");
        return;
    }
    std::vector<uint8_t> key = KeyFrame(), other = Frame(0x41, kOtherFrameSize);
    uint64_t bytes = 0;
    uint32_t n = 0;
    for (auto _ : state) {
        const std::vector<uint8_t> &frame = n++ % 50 == 0 ? key : other;
        if (g_u32Offset > kMediaFileFullSize - 2 * frame.size()) {
            state.SkipWithError("media file full");
            break;
        }
        WriteFrame(frame);
        bytes += frame.size();
    }
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_WriteFramesToTmpfsCard)->Iterations(5000);

void BM_ReadFramesFromTmpfsCard(benchmark::State &state) {
    TmpfsCard card;
    std::vector<uint8_t> key = KeyFrame(), other = Frame(0x41, kOtherFrameSize);
    for (uint32_t n = 0; n < 500 && card.ok(); ++n) WriteFrame(n % 50 == 0 ? key : other);
    uint32_t end = g_u32Offset;
    int fd = open(card.Media().c_str(), O_RDONLY);
    std::vector<uint8_t> buf(kMaxFrameLength);
    uint32_t at = kRecordFileHeaderSize;
    uint64_t bytes = 0;
    for (auto _ : state) {
        if (at >= end) at = kRecordFileHeaderSize;
        int type;
        uint32_t length;
        if (libAVRecordPlayBackGetPSFrameBounded(fd, &at, end, &type, buf.data(), buf.size(), &length,
                                                 nullptr, nullptr) != 0) {
            state.SkipWithError("unreadable frame");
            break;
        }
        bytes += length;
    }
    close(fd);
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_ReadFramesFromTmpfsCard);

}  // namespace

BENCHMARK_MAIN();
