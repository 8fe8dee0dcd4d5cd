// Search by time over a synthetic full index: media files of 250 sections
// of two minutes each, back to back. Time per query for a one-hour range, a
// one-day range and the whole card (list bound to 2048 entries), and how it
// grows with the number of media files.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "avrecord_lib/index_records.h"
#include "common/platform_paths.h"
#include "tools/seek_file.h"

namespace {

constexpr uint32_t kSections = 250;
constexpr uint32_t kSectionSeconds = 120;
constexpr uint32_t kFirstStart = 1767225600;  // 2026-01-01 00:00:00 UTC

uint32_t SectionStart(uint32_t file, uint32_t section) {
    return kFirstStart + (file * kSections + section) * kSectionSeconds;
}

void WriteAt(int fd, uint64_t offset, const void *data, size_t size) {
    if (pwrite(fd, data, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size)) std::abort();
}

// A card directory under a fresh AVRECORD_ROOT holding an index of `files`
// full media files; rebuilt only when the file count changes.
void PrepareCard(uint32_t files) {
    static uint32_t built = 0;
    static std::string root;
    if (built == files) return;
    if (root.empty()) {
        char pattern[] = "/tmp/avrecord-bench-XXXXXX";
        root = mkdtemp(pattern);
        setenv("AVRECORD_ROOT", root.c_str(), 1);
        setenv("TZ", "UTC0", 1);
        std::filesystem::create_directories(PlatformPath(kCardMountPoint));
        std::atexit([] { std::filesystem::remove_all(root); });
    }
    std::string index = PlatformPath(kCardMountPoint) + kIndexFileName;
    int fd = open(index.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    RecordConfigInfo info{};
    info.m_u32HeadFlag = kRecordConfigHeadFlag;
    info.m_u32Version = kRecordConfigVersion;
    info.m_u32RecordFileSum = files;
    info.m_u32CheckCode = kRecordCheckCode;
    WriteAt(fd, 0, &info, sizeof(info));
    std::vector<SectionInfoHead> sections(kSections);
    for (uint32_t n = 0; n < files; ++n) {
        FileInfoHead file{
            kFileInfoHeadFlag, n, SectionStart(n, 0), SectionStart(n + 1, 0), 0, 1, kSections, 0, {}};
        WriteAt(fd, FileInfoHeadPosition(n), &file, sizeof(file));
        for (uint32_t s = 0; s < kSections; ++s) {
            SectionInfoHead &section = sections[s] = SectionInfoHead{};
            section.m_u32HeadFlag = kSectionInfoHeadFlag;
            section.m_u32StartTime = SectionStart(n, s);
            section.m_u32EndTime = SectionStart(n, s + 1) - 1;
            section.m_u32FileNo = static_cast<uint16_t>(n);
            section.m_u16SectionNo = static_cast<uint16_t>(s + 1);
            section.m_u8FrameRate = 25;
        }
        WriteAt(fd, SectionInfoHeadPosition(n, 1), sections.data(),
                sections.size() * sizeof(SectionInfoHead));
    }
    close(fd);
    built = files;
}

void RunQuery(benchmark::State &state, uint32_t start, uint32_t seconds) {
    uint32_t files = static_cast<uint32_t>(state.range(0));
    PrepareCard(files);
    auto list = std::make_unique<FileListInfo>();
    for (auto _ : state) {
        if (SeekFile(kSeekTypeNormal, start, start + seconds, list.get()) != 0) {
            state.SkipWithError("SeekFile failed");
            break;
        }
        benchmark::DoNotOptimize(list->s32FileNum);
    }
    state.counters["entries"] = list->s32FileNum;
    state.SetComplexityN(files);
}

// A range in the middle of the recorded span.
uint32_t Middle(const benchmark::State &state) {
    return SectionStart(static_cast<uint32_t>(state.range(0)) / 2, kSections / 2);
}

void BM_SeekFileHour(benchmark::State &state) { RunQuery(state, Middle(state), 3600); }
void BM_SeekFileDay(benchmark::State &state) { RunQuery(state, Middle(state), 86400); }
void BM_SeekFileWholeCard(benchmark::State &state) {
    RunQuery(state, kFirstStart, 0xFFFFFFFFu - kFirstStart);
}

#define SEEK_FILE_BENCH(name)           \
    BENCHMARK(name)                     \
        ->Arg(250)                      \
        ->Arg(500)                      \
        ->Arg(1000)                     \
        ->Arg(2000)                     \
        ->Unit(benchmark::kMillisecond) \
        ->Complexity(benchmark::oN)

SEEK_FILE_BENCH(BM_SeekFileHour);
SEEK_FILE_BENCH(BM_SeekFileDay);
SEEK_FILE_BENCH(BM_SeekFileWholeCard);

}  // namespace

BENCHMARK_MAIN();
