#include "tools/avi_reader.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/file_io.h"
#include "support/test_helpers.h"
#include "support/test_support.h"
#include "tools/avi_writer.h"

namespace {

struct Chunk {
    int kind;
    std::string payload;
};

Chunk Video(size_t size, char fill) { return {kAviFrameVideo, std::string(size, fill)}; }
Chunk Audio(size_t size, char fill) { return {kAviFrameAudio, std::string(size, fill)}; }

// Exports chunks; with crashCopy the file is also copied before the export
// is finished (provisional header, no idx1), as a crash would leave it.
void Export(const std::string &path, const std::vector<Chunk> &chunks, const std::string &crashCopy = "") {
    ASSERT_EQ(H264ToAviStart(path.c_str(), kAviCodecH264, 320, 240, 25, 1, 1, 8000, 16), 0);
    for (const Chunk &c : chunks)
        ASSERT_EQ(H264ToAviWriteFrame(c.payload.data(), c.payload.size(), c.kind), 0);
    if (!crashCopy.empty()) WriteWholeFile(crashCopy, ReadWholeFile(path));
    ASSERT_EQ(H264ToAviStop(), 0);
}

struct Read {
    int kind;
    uint32_t number;
    std::string payload;
};

std::vector<Read> ReadAll(AviContext *ctx) {
    std::vector<Read> out;
    std::vector<uint8_t> buffer(4096);
    for (;;) {
        uint32_t length = buffer.size();
        Read r{-1, 0, ""};
        if (AF_GetNextFrame(ctx, buffer.data(), &length, &r.kind, &r.number) != 0) return out;
        r.payload.assign(reinterpret_cast<char *>(buffer.data()), length);
        out.push_back(r);
    }
}

int FilesIn(const std::string &dir) {
    int count = 0;
    DIR *d = opendir(dir.c_str());
    while (dirent *e = readdir(d)) count += e->d_name[0] != '.';
    closedir(d);
    return count;
}

const std::vector<Chunk> kEvenChunks = {Video(100, 'a'), Audio(40, 'b'), Video(64, 'c'), Audio(20, 'd'),
                                        Video(8, 'e')};

TEST(AviReaderTest, RoundTrip) {
    TempDir dir;
    std::string path = dir.File("clip.avi");
    Export(path, kEvenChunks);
    AviContext *ctx = AF_Open(path.c_str());
    ASSERT_NE(ctx, nullptr);
    // The main-header words as this reader has always reported them.
    EXPECT_EQ(ctx->u32FrameRate, 17857u);
    EXPECT_EQ(ctx->u32TotalFrames, 2320u);
    EXPECT_EQ(ctx->u32Width, 1048576u);
    EXPECT_EQ(ctx->u32Height, 320u);

    std::vector<Read> got = ReadAll(ctx);
    ASSERT_EQ(got.size(), kEvenChunks.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].kind, kEvenChunks[i].kind) << i;
        EXPECT_EQ(got[i].payload, kEvenChunks[i].payload) << i;
    }
    // Video frames count from 0; the positioning on the first (video) chunk
    // counted it as audio, so audio frames count from 1.
    EXPECT_EQ(got[0].number, 0u);
    EXPECT_EQ(got[2].number, 1u);
    EXPECT_EQ(got[4].number, 2u);
    EXPECT_EQ(got[1].number, 1u);
    EXPECT_EQ(got[3].number, 2u);

    // Seeking counts video and audio chunks together.
    ASSERT_EQ(AF_SeekToFrame(ctx, 3), 0);
    got = ReadAll(ctx);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].payload, kEvenChunks[3].payload);
    EXPECT_EQ(got[1].payload, kEvenChunks[4].payload);

    EXPECT_EQ(AF_Close(ctx), 0);
    EXPECT_EQ(FilesIn(dir.path()), 1);  // the temporary index is gone
}

TEST(AviReaderTest, OddChunksAndUnfinishedExport) {
    TempDir dir;
    std::string path = dir.File("odd.avi"), crashed = dir.File("crashed.avi");
    std::vector<Chunk> chunks = {Video(7, 'a'), Audio(3, 'b'), Video(1, 'c'), Video(5, 'd')};
    Export(path, chunks, crashed);
    for (const std::string &file : {path, crashed}) {
        AviContext *ctx = AF_Open(file.c_str());
        ASSERT_NE(ctx, nullptr) << file;
        std::vector<Read> got = ReadAll(ctx);
        ASSERT_EQ(got.size(), chunks.size()) << file;
        for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i].payload, chunks[i].payload) << file << i;
        AF_Close(ctx);
    }
    EXPECT_EQ(FilesIn(dir.path()), 2);
}

// The reader opens the AVI file for reading only: a file it may not write
// (a read-only card, no write permission) still opens. The temporary index
// beside it is the reader's own.
TEST(AviReaderTest, ReadsAFileItMayNotWrite) {
    TempDir dir;
    std::string path = dir.File("clip.avi");
    Export(path, kEvenChunks);
    static FileIoOps readOnlyAvi = PosixFileIo();
    readOnlyAvi.open = [](const char *file, int flags, mode_t mode) {
        std::string name(file);
        bool avi = name.size() > 4 && name.compare(name.size() - 4, 4, ".avi") == 0;
        if (avi && (flags & O_ACCMODE) != O_RDONLY) {
            errno = EROFS;
            return -1;
        }
        return PosixFileIo().open(file, flags, mode);
    };
    SetFileIo(&readOnlyAvi);
    AviContext *ctx = AF_Open(path.c_str());
    SetFileIo(nullptr);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ReadAll(ctx).size(), kEvenChunks.size());
    EXPECT_EQ(AF_Close(ctx), 0);
}

// The walk over the top-level chunks is part of parsing the head, and its
// lines say so.
TEST(AviReaderTest, TopLevelChunksAreLoggedByTheHeadParse) {
    TempDir dir;
    std::string path = dir.File("clip.avi");
    Export(path, kEvenChunks);
    testing::internal::CaptureStdout();
    AviContext *ctx = AF_Open(path.c_str());
    fflush(stdout);
    std::string log = testing::internal::GetCapturedStdout();
    ASSERT_NE(ctx, nullptr);
    AF_Close(ctx);
    EXPECT_NE(log.find("Flag=LIST Size="), std::string::npos) << log;
    EXPECT_TRUE(LogNamesFunction(log, "AF_ParserHead")) << log;
    EXPECT_FALSE(LogNamesFunction(log, "WalkTopLevel")) << log;
}

TEST(AviReaderTest, ShortBufferLeavesRestOfChunk) {
    TempDir dir;
    std::string path = dir.File("clip.avi");
    Export(path, {Video(10, 'a'), Video(10, 'b')});
    AviContext *ctx = AF_Open(path.c_str());
    ASSERT_NE(ctx, nullptr);
    uint8_t buffer[4];
    uint32_t length = sizeof(buffer);
    ASSERT_EQ(AF_GetNextFrame(ctx, buffer, &length, nullptr, nullptr), 0);
    EXPECT_EQ(length, 4u);
    length = sizeof(buffer);
    EXPECT_EQ(AF_GetNextFrame(ctx, buffer, &length, nullptr, nullptr), -1);  // inside the first chunk
    AF_Close(ctx);
}

// Error paths.
TEST(AviReaderTest, DamagedFilesAreRefusedNotFollowed) {
    TempDir dir;
    std::string path = dir.File("clip.avi");
    EXPECT_EQ(AF_Open(path.c_str()), nullptr);
    EXPECT_EQ(AF_Open(nullptr), nullptr);

    Export(path, kEvenChunks);
    std::string whole = ReadWholeFile(path);
    struct Damage {
        const char *name;
        std::string bytes;
    } damaged[] = {
        {"NotRiff", "RIFX" + whole.substr(4)},
        {"CutInHeader", whole.substr(0, 300)},
        {"NoMovi", whole.substr(0, 512)},
        {"NegativeSize", whole.substr(0, 16) + std::string("\xff\xff\xff\xff", 4) + whole.substr(20)}};
    for (const Damage &d : damaged) {
        std::string file = dir.File(d.name);
        WriteWholeFile(file, d.bytes);
        EXPECT_EQ(AF_Open(file.c_str()), nullptr) << d.name;
    }
    EXPECT_EQ(FilesIn(dir.path()), 1 + 4);

    AviContext *ctx = AF_Open(path.c_str());
    ASSERT_NE(ctx, nullptr);
    uint8_t buffer[8];
    uint32_t length = sizeof(buffer);
    EXPECT_EQ(AF_GetNextFrame(nullptr, buffer, &length, nullptr, nullptr), -1);
    EXPECT_EQ(AF_GetNextFrame(ctx, nullptr, &length, nullptr, nullptr), -1);
    EXPECT_EQ(AF_GetNextFrame(ctx, buffer, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(AviOpen(ctx, path.c_str()), -1);  // already open
    EXPECT_EQ(AF_SeekToFrame(nullptr, 0), -1);
    EXPECT_EQ(AF_Close(ctx), 0);
    EXPECT_EQ(AF_Close(nullptr), -1);
}

// An independent demuxer and decoder accept an export of real H.264 frames.
TEST(AviReaderTest, FfprobeReadsExport) {
    if (!HaveTool("ffmpeg") || !HaveTool("ffprobe")) GTEST_SKIP() << "ffmpeg/ffprobe not installed";
    TempDir dir;
    std::string es = dir.File("in.h264"), avi = dir.File("out.avi");
    RunCommand(
        "ffmpeg -v error -f lavfi -i testsrc=size=160x120:rate=25 -frames:v 12 -c:v libx264 -x264-params "
        "aud=1 "
        "-bsf:v h264_mp4toannexb -f h264 -y " +
        es);
    std::string stream = ReadWholeFile(es);
    if (stream.empty()) GTEST_SKIP() << "no H.264 encoder";
    const std::string aud("\x00\x00\x00\x01\x09", 5);
    ASSERT_EQ(H264ToAviStart(avi.c_str(), kAviCodecH264, 160, 120, 25, 0, 0, 0, 0), 0);
    int frames = 0;
    for (size_t at = stream.find(aud); at != std::string::npos; ++frames) {
        size_t next = stream.find(aud, at + 1);
        std::string unit = stream.substr(at, next == std::string::npos ? std::string::npos : next - at);
        ASSERT_EQ(H264ToAviWriteFrame(unit.data(), unit.size(), kAviFrameVideo), 0);
        at = next;
    }
    ASSERT_EQ(H264ToAviStop(), 0);
    ASSERT_EQ(frames, 12);
    std::string probe = RunCommand(
        "ffprobe -v error -count_frames -select_streams v:0 -show_entries "
        "stream=codec_name,width,height,nb_read_frames -of csv=p=0 " +
        avi);
    EXPECT_EQ(probe, "h264,160,120,12\n");
}

}  // namespace
