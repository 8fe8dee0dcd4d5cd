// Cost of the index upkeep on every frame (section record, file record and
// header rewritten in place), of a key-frame entry write, of a positioned
// 4 KiB read, and of checking a whole card index.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_config.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "card_reader/index_check.h"

namespace {

// A scratch card directory with sparse files, removed at the end.
class ScratchCard {
public:
    explicit ScratchCard(uint32_t mediaFiles) {
        char pattern[] = "/tmp/avrecord-bench-XXXXXX";
        dir_ = std::string(mkdtemp(pattern)) + "/";
        for (uint32_t n = 0; n < mediaFiles; ++n) Sparse(CardMediaFilePath(dir_, n), kMediaFileSize);
        Sparse(dir_ + kIndexFileName, kIndexFileSize);
        MkfsCapacityInfo config = {};
        config.m_u32VideoFileNum = mediaFiles;
        AV_RecordFileConfigSet((dir_ + kIndexFileName).c_str(), &config);
    }
    ~ScratchCard() { std::filesystem::remove_all(dir_); }
    const std::string &dir() const { return dir_; }

private:
    static void Sparse(const std::string &path, uint32_t size) {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0666);
        if (fd >= 0 && ::ftruncate(fd, size) == 0) ::close(fd);
    }
    std::string dir_;
};

void BM_FrameIndexUpdate(benchmark::State &state) {
    ScratchCard card(1);
    int fd = AVFileOpen((card.dir() + kIndexFileName).c_str(), kAVFileModeReadWrite);
    RecordConfigInfo *info = GetRecordConfigInfo();
    FileInfoHead *file = GetFileInfoHead();
    SectionInfoHead *section = GetSectionInfoHead();
    AV_RecordConfigInfoRead(fd, info);
    AV_RecordFileConfigParamGet(info, file, section, 1);
    uint32_t time = 1700000000;
    for (auto _ : state) {
        AV_RecordSectionInfoHeadSetEndTime(section, ++time);
        AV_RecordSectionInfoHeadAddSize(section, 1000);
        AV_RecordSectionInfoHeadCountFrame(section, 0, 0);
        AV_RecordFileInfoHeadAddDataSize(file, 1000);
        AV_RecordFileInfoHeadSetEndTime(file, time);
        AV_RecordSectionInfoHeadWrite(fd, file, section);
        AV_RecordFileInfoHeadWrite(fd, info, file);
        AV_RecordConfigInfoWrite(fd, info);
    }
    AVFileClose(fd);
}
BENCHMARK(BM_FrameIndexUpdate);

void BM_KeyFrameEntryWrite(benchmark::State &state) {
    ScratchCard card(1);
    int fd = AVFileOpen(CardMediaFilePath(card.dir(), 0).c_str(), kAVFileModeReadWrite);
    KeyFrameEntry entry;
    uint32_t k = 0;
    for (auto _ : state) {
        AV_RecordKeyFrameEntryInit(&entry, k, 1000, 1000 * k, 1);
        AV_RecordKeyFrameEntryWrite(fd, KeyFrameEntryOffset(k++ % 4096), &entry);
    }
    AVFileClose(fd);
}
BENCHMARK(BM_KeyFrameEntryWrite);

void BM_StreamInfoRead4K(benchmark::State &state) {
    ScratchCard card(1);
    int fd = AVFileOpen(CardMediaFilePath(card.dir(), 0).c_str(), kAVFileModeRead);
    std::vector<uint8_t> buf(4096);
    uint32_t offset = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(AV_RecordStreamInfoRead(fd, offset, buf.data(), 4096));
        offset = (offset + 4096) % (64u << 20);
    }
    state.SetBytesProcessed(state.iterations() * 4096);
    AVFileClose(fd);
}
BENCHMARK(BM_StreamInfoRead4K);

// A card of 100 media files with no recording yet: header, media files and
// every file record are looked at.
void BM_CheckCardIndex(benchmark::State &state) {
    ScratchCard card(static_cast<uint32_t>(state.range(0)));
    for (auto _ : state) {
        std::vector<IndexProblem> problems;
        benchmark::DoNotOptimize(CheckCardIndex(card.dir(), &problems));
    }
}
BENCHMARK(BM_CheckCardIndex)->Arg(100)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
