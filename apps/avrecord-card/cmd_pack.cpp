// "avrecord-card pack INPUT": records an Annex-B clip onto a card exactly as
// the daemon records a live stream: the section is opened on the card's
// index, every access unit goes through the frame writer (which rewrites
// the index after each frame), and a media file that fills up ends the
// section and moves recording on to the next file. The channel's encoding
// settings come from the clip itself and the options, handed to the writer
// through its encoding source; no other process is involved. Frame times
// advance with the frame rate from the moment of packing.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "avrecord_lib/annexb_stream.h"
#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/index_records.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "card_command.h"
#include "card_reader/adts_header.h"
#include "common/card_time.h"

namespace {

constexpr int kPackChannel = 0;
constexpr uint8_t kCoverOldRecordings = 1;
constexpr uint32_t kMaxFps = 240;
constexpr uint32_t kG711FrameBytes = 320;  // 40 ms at 8 kHz
constexpr uint32_t kG711Rate = 8000;

// A read-only view of a whole input file.
class MappedFile {
public:
    ~MappedFile() {
        if (data_ != nullptr) munmap(data_, size_);
    }
    bool Open(const std::string &path) {
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return false;
        struct stat st;
        bool ok = fstat(fd, &st) == 0 && st.st_size > 0;
        if (ok) {
            size_ = static_cast<size_t>(st.st_size);
            void *map = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
            ok = map != MAP_FAILED;
            data_ = ok ? static_cast<uint8_t *>(map) : nullptr;
            if (ok) madvise(map, size_, MADV_SEQUENTIAL);
        }
        close(fd);
        return ok;
    }
    const uint8_t *data() const { return data_; }
    size_t size() const { return size_; }

private:
    uint8_t *data_ = nullptr;
    size_t size_ = 0;
};

// Audio frames of the --audio file with their durations.
struct AudioTrack {
    const uint8_t *data = nullptr;
    size_t size = 0;
    bool adts = false;
    size_t at = 0;          // next frame
    double nextTime = 0;    // its start, in seconds
    uint32_t codeType = 0;  // channel audio codec type

    // Length of the next frame, 0 at the end (or at a broken ADTS header).
    uint32_t NextLength(double *duration) const {
        if (at >= size) return 0;
        if (!adts) {
            uint32_t length = static_cast<uint32_t>(std::min<size_t>(kG711FrameBytes, size - at));
            *duration = static_cast<double>(length) / kG711Rate;
            return length;
        }
        AdtsHeader header;
        if (!AdtsParse(data + at, size - at, &header)) return 0;
        *duration = static_cast<double>(kAacSamplesPerFrame) / header.sampleRate;
        return header.frameLength;
    }
};

// What the writer is told about the channel, and the simulated clocks.
struct PackContext {
    RecordEncodingInfo encoding{};
    struct timeval startWall {};
    uint32_t startUptime = 1000;
    uint32_t fps = 25;
    uint64_t videoFrames = 0;  // access units handed to the writer
};
PackContext g_pack;

int PackEncoding(int, RecordEncodingInfo *info) {
    *info = g_pack.encoding;
    return 0;
}

// Elapsed clip time in microseconds.
uint64_t ElapsedUs() { return g_pack.videoFrames * 1000000 / g_pack.fps; }

void PackWallClock(struct timeval *now) {
    uint64_t us = static_cast<uint64_t>(g_pack.startWall.tv_usec) + ElapsedUs();
    now->tv_sec = g_pack.startWall.tv_sec + static_cast<time_t>(us / 1000000);
    now->tv_usec = static_cast<suseconds_t>(us % 1000000);
}

uint32_t PackUptime() { return g_pack.startUptime + static_cast<uint32_t>(ElapsedUs() / 1000000); }

time_t PackRecordClock() {
    struct timeval now {};
    PackWallClock(&now);
    return now.tv_sec;
}

struct SectionTally {
    uint32_t video = 0;
    uint32_t audio = 0;
    uint32_t refused = 0;
};

struct Options {
    VideoCodec codec = VideoCodec::kH264;
    uint32_t fps = 25;
    uint32_t rotate = 0;
    std::string audioPath;
    uint32_t audioType = 0;
    bool adts = false;
};

bool ParseNumber(const std::string &text, uint32_t low, uint32_t high, uint32_t *value) {
    char *end = nullptr;
    unsigned long v = strtoul(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || v < low || v > high) return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

int ParseOptions(const CardArgs &args, Options *opt) {
    std::string codec = args.Get("--codec", "h264");
    if (codec == "h265" || codec == "hevc") {
        opt->codec = VideoCodec::kH265;
    } else if (codec != "h264") {
        return CardFail(args, kExitUsage, "--codec must be h264 or h265, not '%s'", codec.c_str());
    }
    if (args.Has("--fps") && !ParseNumber(args.Get("--fps"), 1, kMaxFps, &opt->fps)) {
        return CardFail(args, kExitUsage, "--fps must be a whole number from 1 to %u", kMaxFps);
    }
    if (args.Has("--rotate") && !ParseNumber(args.Get("--rotate"), 0, 3, &opt->rotate)) {
        return CardFail(args, kExitUsage, "--rotate must be 0, 1, 2 or 3");
    }
    opt->audioPath = args.Get("--audio");
    std::string audioCodec = args.Get("--audio-codec");
    if (opt->audioPath.empty() != audioCodec.empty()) {
        return CardFail(args, kExitUsage, "--audio and --audio-codec go together");
    }
    if (audioCodec == "g711u" || audioCodec.empty()) {
        opt->audioType = 0;
    } else if (audioCodec == "g711a") {
        opt->audioType = 1;
    } else if (audioCodec == "aac") {
        opt->audioType = 3;
        opt->adts = true;
    } else {
        return CardFail(args, kExitUsage, "--audio-codec must be g711a, g711u or aac, not '%s'",
                        audioCodec.c_str());
    }
    return kExitOk;
}

// Loads the index header and the current file record as the daemon does at
// its first record start.
int LoadIndex(const CardArgs &args) {
    std::string path = args.card + kIndexFileName;
    int fd = AVFileOpen(path.c_str(), kAVFileModeRead);
    if (fd < 0) return CardFail(args, kExitCardProblem, "cannot open %s", path.c_str());
    RecordConfigInfo *info = GetRecordConfigInfo();
    bool ok = AV_RecordConfigInfoRead(fd, info) >= 0 && AV_RecordConfigInfoCheck(info) == 0;
    if (ok) AV_RecordFileInfoHeadRead(fd, info, GetFileInfoHead());
    AVFileClose(fd);
    if (!ok)
        return CardFail(args, kExitCardProblem, "%s has no valid index header (run avrecord-card init)",
                        path.c_str());
    if (info->m_u32RecordFileSum == 0)
        return CardFail(args, kExitCardProblem, "the index counts no media files");
    return kExitOk;
}

// Opens a section and the writer on the current file.
int StartSection(const CardArgs &args) {
    if (AV_RecordFileCoverCheck(GetRecordConfigInfo(), GetFileInfoHead(), kCoverOldRecordings) < 0 ||
        AV_RecordFileConfigParamGet(GetRecordConfigInfo(), GetFileInfoHead(), GetSectionInfoHead(), 1) < 0) {
        return CardFail(args, kExitCardProblem, "cannot open a section in the index");
    }
    if (LS_RecordInit(GetFileInfoHead(), kPackChannel) < 0) {
        return CardFail(args, kExitCardProblem, "cannot open media file %u on the card",
                        GetFileInfoHead()->m_u32FileNo);
    }
    return kExitOk;
}

void ReportSection(const CardArgs &args, const SectionTally &tally) {
    const SectionInfoHead *s = GetSectionInfoHead();
    char name[32];
    snprintf(name, sizeof name, kSectionNameFormat, s->m_u32FileNo, s->m_u16SectionNo);
    if (args.json) {
        JsonLine()
            .Add("section", name)
            .Add("video_frames", s->m_u32VideoFrameSum)
            .Add("key_frames", s->m_u32KeyFrameSum)
            .Add("audio_frames", tally.audio)
            .Add("refused", tally.refused)
            .Add("offset", s->m_u32SectionOffset)
            .Add("size", s->m_u32SectionSize)
            .Add("start", s->m_u32StartTime)
            .Add("end", s->m_u32EndTime)
            .Print();
    } else {
        printf("%s: %u video frames (%u key), %u audio frames, %u refused, %u bytes at %u, %u..%u\n", name,
               s->m_u32VideoFrameSum, s->m_u32KeyFrameSum, tally.audio, tally.refused, s->m_u32SectionSize,
               s->m_u32SectionOffset, s->m_u32StartTime, s->m_u32EndTime);
    }
}

// Ends the section as the record run does: close, remember the end time,
// and move on when the file is full.
void EndSection(const CardArgs &args, const SectionTally &tally) {
    LS_RecordClose();
    ReportSection(args, tally);
    g_u32LastRecordEndTime.store(GetSectionInfoHead()->m_u32EndTime, std::memory_order_relaxed);
    AV_RecordNextFileSelect(GetRecordConfigInfo(), GetFileInfoHead());
}

// Writes the header once more, so that a file change at the very end is
// not lost (the daemon's next frame would write it).
void SaveHeader(const CardArgs &args) {
    std::string path = args.card + kIndexFileName;
    int fd = AVFileOpen(path.c_str(), kAVFileModeReadWrite);
    AV_RecordConfigInfoWrite(fd, GetRecordConfigInfo());
    AVFileClose(fd);
}

int WriteFrame(int kind, const uint8_t *data, size_t length, uint8_t keyMark, SectionTally *tally) {
    AVDataInfo info{};
    info.AVDataLen = static_cast<int32_t>(length);
    info.AVSource = static_cast<uint32_t>(kind);
    info.KeyFrameFlag = keyMark;
    int result = libAVRecordWriteFrame(kPackChannel, kind, data, &info);
    if (result < 0) {
        ++tally->refused;
    } else if (kind == kFrameKindAudio) {
        ++tally->audio;
    } else {
        ++tally->video;
    }
    return result;
}

// Audio frames that start before the end of the current video frame.
void WriteAudioUpTo(AudioTrack &audio, double until, SectionTally *tally) {
    double duration = 0;
    for (uint32_t length; audio.nextTime < until && (length = audio.NextLength(&duration)) > 0;) {
        WriteFrame(kFrameKindAudio, audio.data + audio.at, length, 0, tally);
        audio.at += length;
        audio.nextTime += duration;
    }
}

// Access units start with a four-byte start code; a three-byte one gets a
// zero byte in front.
const uint8_t *WithLongStartCode(const uint8_t *unit, size_t *length, std::vector<uint8_t> &scratch) {
    if (*length >= 4 && unit[0] == 0 && unit[1] == 0 && unit[2] == 0 && unit[3] == 1) return unit;
    scratch.assign(1, 0);
    scratch.insert(scratch.end(), unit, unit + *length);
    *length = scratch.size();
    return scratch.data();
}

int RunPack(const CardArgs &args) {
    if (args.positional.size() != 1) return CardFail(args, kExitUsage, "needs one INPUT file");
    Options opt;
    if (int rc = ParseOptions(args, &opt); rc != kExitOk) return rc;

    MappedFile input;
    if (!input.Open(args.positional[0])) {
        return CardFail(args, kExitUsage, "cannot read %s", args.positional[0].c_str());
    }
    MappedFile audioFile;
    AudioTrack audio;
    if (!opt.audioPath.empty()) {
        if (!audioFile.Open(opt.audioPath))
            return CardFail(args, kExitUsage, "cannot read %s", opt.audioPath.c_str());
        audio.data = audioFile.data();
        audio.size = audioFile.size();
        audio.adts = opt.adts;
    }
    PictureSize picture;
    if (AnnexBPictureSize(input.data(), std::min<size_t>(input.size(), 1 << 20), opt.codec, &picture) < 0) {
        return CardFail(args, kExitUsage, "%s: no readable sequence parameter set near the start",
                        args.positional[0].c_str());
    }

    g_pack.encoding = RecordEncodingInfo{picture.width, picture.height, opt.fps, opt.rotate, 0, 0, 0,
                                         opt.audioType, kG711Rate,      0};
    g_pack.fps = opt.fps;
    gettimeofday(&g_pack.startWall, nullptr);
    LS_RecordSetEncodingSource(PackEncoding);
    LS_RecordSetClocks(PackWallClock, PackUptime);
    SetRecordClockForTest(PackRecordClock);
    LS_RecordSetCardDir(args.card.c_str());

    int rc = LoadIndex(args);
    if (rc != kExitOk) return rc;
    // Frame times run ahead of the clock while packing; a clip packed after
    // another starts behind it rather than inside its time span.
    uint32_t lastEnd =
        GetFileInfoHead()->m_u32HeadFlag == kFileInfoHeadFlag ? GetFileInfoHead()->m_u32EndTime : 0;
    if (g_pack.startWall.tv_sec <= CardTimeToTime(lastEnd))
        g_pack.startWall = {CardTimeToTime(lastEnd) + 1, 0};
    if ((rc = StartSection(args)) != kExitOk) return rc;

    SectionTally tally;
    std::vector<uint8_t> scratch;
    size_t at = AnnexBNextStartCode(input.data(), input.size(), 0);
    while (at < input.size()) {
        size_t end = AnnexBAccessUnitEnd(input.data(), input.size(), at, opt.codec);
        size_t length = end - at;
        const uint8_t *unit = WithLongStartCode(input.data() + at, &length, scratch);
        WriteFrame(kFrameKindVideo, unit, length, 0, &tally);
        ++g_pack.videoFrames;
        if (audio.data != nullptr)
            WriteAudioUpTo(audio, static_cast<double>(g_pack.videoFrames) / opt.fps, &tally);
        at = end;
        if (GetFileInfoHead()->m_u32DataSize >= kMediaFileFullSize && at < input.size()) {
            EndSection(args, tally);
            tally = SectionTally{};
            if ((rc = StartSection(args)) != kExitOk) return rc;
        }
    }
    EndSection(args, tally);
    SaveHeader(args);
    return kExitOk;
}

}  // namespace

AVR_CARD_COMMAND(pack, "pack",
                 "pack INPUT [--card DIR] [--codec h264|h265] [--fps N] [--audio FILE --audio-codec "
                 "g711a|g711u|aac] [--rotate 0..3] [--json]",
                 {"--codec", "--fps", "--audio", "--audio-codec", "--rotate"}, RunPack);
