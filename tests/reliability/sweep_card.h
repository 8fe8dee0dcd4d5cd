// Shared by the fault and crash sweeps: a synthetic camera stream, a record
// run that drives the frame writer exactly as the daemon does, and a
// read-back of everything a card's index references through the playback
// reader, matched against the frames that were published.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_map>
#include <vector>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/index_records.h"
#include "avrecord_lib/playback_reader.h"
#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_config.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "card_reader/index_check.h"
#include "support/card_fixture.h"

namespace sweep {

// The sweeps' record run: 100 video frames in GOPs of 10 with an audio
// frame after every fourth, then a second, shorter run.
inline constexpr int kVideoFrames = 100;
inline constexpr int kGop = 10;
inline constexpr int kAudioEvery = 4;
inline constexpr uint32_t kFirstRun = 0;
inline constexpr uint32_t kSecondRun = 1;
inline constexpr uint32_t kStartTime = 1700000000;

inline constexpr int kChannel = 0;
inline constexpr uint32_t kFps = 25;
inline constexpr uint32_t kG711FrameBytes = 320;
inline constexpr uint32_t kBigKeyFrameBytes = 70000;  // more than one PES payload
inline constexpr uint32_t kReadBufferSize = 4 << 20;
inline constexpr uint32_t kCardMediaFiles = 2;

struct StreamFrame {
    int kind;                    // kFrameKindVideo / kFrameKindAudio
    bool key;                    // SPS-led video frame
    std::vector<uint8_t> bytes;  // what the encoder published
};
using Stream = std::vector<StreamFrame>;

// Bytes without a zero, so no start code appears inside a payload.
inline void AppendFill(std::vector<uint8_t> &out, uint32_t seed, uint32_t count) {
    uint32_t x = seed * 2654435761u + 1;
    for (uint32_t i = 0; i < count; ++i) {
        x = x * 1103515245u + 12345u;
        out.push_back(static_cast<uint8_t>((x >> 16) | 1));
    }
}

inline void AppendNal(std::vector<uint8_t> &out, uint8_t header, uint32_t seed, uint32_t size) {
    const uint8_t startCode[] = {0, 0, 0, 1};
    out.insert(out.end(), startCode, startCode + 4);
    out.push_back(header);
    AppendFill(out, seed, size);
}

// H.264 video: a key frame (SPS, PPS, IDR) every `gop` frames, one of them
// larger than a PES payload; a G.711 audio frame after every `audioEvery`
// video frames. Every frame's bytes are unique (seeded by id and index).
inline Stream MakeStream(uint32_t id, int videoFrames, int gop, int audioEvery) {
    Stream stream;
    for (int v = 0; v < videoFrames; ++v) {
        uint32_t seed = id * 100000u + static_cast<uint32_t>(v);
        StreamFrame frame{kFrameKindVideo, v % gop == 0, {}};
        if (frame.key) {
            AppendNal(frame.bytes, 0x67, seed, 12);
            AppendNal(frame.bytes, 0x68, seed + 7, 4);
            uint32_t size = v == videoFrames / 2 ? kBigKeyFrameBytes : 5000 + (seed * 13) % 2000;
            AppendNal(frame.bytes, 0x65, seed + 11, size);
        } else {
            AppendNal(frame.bytes, 0x41, seed, 300 + (seed * 97) % 1500);
        }
        stream.push_back(std::move(frame));
        if (audioEvery > 0 && v % audioEvery == audioEvery - 1) {
            StreamFrame audio{kFrameKindAudio, false, {}};
            AppendFill(audio.bytes, seed + 50000, kG711FrameBytes);
            stream.push_back(std::move(audio));
        }
    }
    return stream;
}

// Frame bytes -> (stream id << 20 | position in the stream).
class FrameCatalog {
public:
    void Add(uint32_t id, const Stream &stream) {
        for (size_t i = 0; i < stream.size(); ++i) {
            const auto &b = stream[i].bytes;
            map_[std::string(b.begin(), b.end())] = static_cast<int>(id << 20 | i);
        }
    }
    int Find(const uint8_t *data, uint32_t length) const {
        auto it = map_.find(std::string(reinterpret_cast<const char *>(data), length));
        return it == map_.end() ? -1 : it->second;
    }
    static int Key(uint32_t id, size_t position) { return static_cast<int>(id << 20 | position); }

private:
    std::unordered_map<std::string, int> map_;
};

// The channel's settings and clocks while a run records: 1280x720 at 25 fps
// with G.711 audio; wall clock and uptime advance with the video frames.
struct RunClock {
    static inline uint32_t start = 0;
    static inline uint32_t videoFrames = 0;
    static time_t Now() { return start + videoFrames / kFps; }
    static void Wall(struct timeval *now) { *now = {static_cast<time_t>(Now()), 0}; }
    static uint32_t Uptime() { return 1000 + videoFrames / kFps; }
    static int Encoding(int, RecordEncodingInfo *info) {
        *info = RecordEncodingInfo{1280, 720, kFps, 0, 0, 0, 0, 0, 8000, 0};
        return 0;
    }
};

// A fresh card: sparse file set with a valid index header.
inline bool MakeCard(const std::string &card) {
    for (uint32_t n = 0; n < kCardMediaFiles; ++n) unlink(MediaFilePath(card, n).c_str());
    unlink((card + kIndexFileName).c_str());
    unlink((card + kEventFileName).c_str());
    MakeSparseCard(card, kCardMediaFiles);
    MkfsCapacityInfo config = {};
    config.m_u32VideoFileNum = kCardMediaFiles;
    return AV_RecordFileConfigSet((card + kIndexFileName).c_str(), &config) == 0;
}

// Loads the index header and the current file record as the daemon does at
// a record start.
inline bool LoadIndex(const std::string &card) {
    int fd = AVFileOpen((card + kIndexFileName).c_str(), kAVFileModeRead);
    RecordConfigInfo *info = GetRecordConfigInfo();
    bool ok = AV_RecordConfigInfoRead(fd, info) >= 0 && AV_RecordConfigInfoCheck(info) == 0 &&
              info->m_u32RecordFileSum != 0;
    if (ok) AV_RecordFileInfoHeadRead(fd, info, GetFileInfoHead());
    AVFileClose(fd);
    return ok;
}

// Opens a section on the index and arms the writer, as a run starts.
inline bool OpenSection(FileInfoHead *before) {
    *before = *GetFileInfoHead();
    return AV_RecordFileCoverCheck(GetRecordConfigInfo(), GetFileInfoHead(), 1) >= 0 &&
           AV_RecordFileConfigParamGet(GetRecordConfigInfo(), GetFileInfoHead(), GetSectionInfoHead(), 1) ==
               0 &&
           LS_RecordInit(GetFileInfoHead(), kChannel) == 0;
}

// Ends the section as a run ends: the writer closed, a section without a
// frame given back, the next file when this one is full.
inline void EndSection(const FileInfoHead &before) {
    LS_RecordClose();
    g_u32LastRecordEndTime.store(GetSectionInfoHead()->m_u32EndTime, std::memory_order_relaxed);
    if (GetSectionInfoHead()->m_u32EndTime == 0) *GetFileInfoHead() = before;
    AV_RecordNextFileSelect(GetRecordConfigInfo(), GetFileInfoHead());
}

// One record run over `stream` from startTime, as the daemon records it:
// open a section on the index, arm the writer, hand it every frame, close,
// move on when the file is full, save the header. A write the card refuses
// ends the section; as the daemon's schedule check does, a new one starts
// once the index can be written again (tried before every frame). -1 when
// the run could not start. writesAfter (optional) gets, per frame,
// writeCount() after it.
template <typename WriteCount>
int RecordRun(const std::string &card, const Stream &stream, uint32_t startTime, WriteCount writeCount,
              std::vector<size_t> *writesAfter = nullptr) {
    RunClock::start = startTime;
    RunClock::videoFrames = 0;
    LS_RecordSetEncodingSource(RunClock::Encoding);
    LS_RecordSetClocks(RunClock::Wall, RunClock::Uptime);
    SetRecordClockForTest(RunClock::Now);
    LS_RecordSetCardDir(card.c_str());
    int result = -1;
    FileInfoHead before{};
    bool open = LoadIndex(card) && (LS_RecordCardError() == 0 || LS_RecordIndexRewrite() == 0) &&
                OpenSection(&before);
    if (open) {
        for (const StreamFrame &frame : stream) {
            AVDataInfo info{};
            info.AVDataLen = static_cast<int32_t>(frame.bytes.size());
            info.AVSource = static_cast<uint32_t>(frame.kind);
            libAVRecordWriteFrame(kChannel, frame.kind, frame.bytes.data(), &info);
            if (frame.kind == kFrameKindVideo) ++RunClock::videoFrames;
            if (LS_RecordCardError() != 0) {
                if (open) EndSection(before);
                open = LS_RecordIndexRewrite() == 0 && OpenSection(&before);
            }
            if (writesAfter != nullptr) writesAfter->push_back(writeCount());
        }
        result = 0;
    }
    if (open) {
        EndSection(before);
        int fd = AVFileOpen((card + kIndexFileName).c_str(), kAVFileModeReadWrite);
        AV_RecordConfigInfoWrite(fd, GetRecordConfigInfo());
        AVFileClose(fd);
    } else {
        LS_RecordClose();
    }
    LS_RecordSetEncodingSource(nullptr);
    LS_RecordSetClocks(nullptr, nullptr);
    SetRecordClockForTest(nullptr);
    LS_RecordSetCardDir(nullptr);
    return result;
}

inline int RecordRun(const std::string &card, const Stream &stream, uint32_t startTime) {
    return RecordRun(card, stream, startTime, [] { return size_t{0}; });
}

// What the index references, read back through the playback reader.
struct ReadBack {
    std::vector<int> frames;  // catalog keys in card order
    int foreign = 0;          // frames that are no published frame
    int resyncs = 0;          // walks resumed at a key-frame entry after a bad packet
    int sections = 0;         // sections walked
};

// Walks every section of every file record in use.
inline ReadBack ReadBackCard(const std::string &card, const FrameCatalog &catalog) {
    ReadBack out;
    std::vector<uint8_t> buf(kReadBufferSize);
    SectionFrameWalk walk;
    walk.onFrame = [&](const uint8_t *frame, uint32_t length) {
        int key = catalog.Find(frame, length);
        if (key < 0) {
            ++out.foreign;
        } else {
            out.frames.push_back(key);
        }
    };
    walk.onGap = [&](uint32_t, uint32_t resumed) { out.resyncs += resumed != 0; };
    ForEachCardSection(card, [&](int mediaFd, const SectionInfoHead &section, uint32_t firstEntry) {
        ++out.sections;
        WalkSectionFrames(mediaFd, section, firstEntry, buf.data(), kReadBufferSize, walk);
    });
    return out;
}

// The index check, and with frames the deep check too.
inline std::vector<IndexProblem> CheckCard(const std::string &card, bool frames = false) {
    std::vector<IndexProblem> problems;
    CheckCardIndex(card, &problems);
    if (frames) CheckCardFrames(card, &problems);
    return problems;
}

// Sweeps visit every fault point when AVRECORD_SWEEP_FULL is set, else a
// spread sample of about `sample` points (the smoke run inside the tests).
inline int SweepStride(int points, int sample) {
    const char *full = getenv("AVRECORD_SWEEP_FULL");
    if ((full != nullptr && *full != '\0' && *full != '0') || points <= sample) return 1;
    return points / sample + 1;
}

// Failed checks so far in the running test.
inline int FailedParts() {
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

// One summary line per sweep for the reliability report.
inline void PrintFigures(const char *name, const std::string &figures) {
    printf("[reliability] %s %s\n", name, figures.c_str());
    fflush(stdout);
}

}  // namespace sweep
