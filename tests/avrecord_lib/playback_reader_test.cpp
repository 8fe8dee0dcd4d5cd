#include "avrecord_lib/playback_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "avrecord_lib/ps_packetizer.h"
#include "common/log.h"
#include "support/es_frames.h"
#include "support/test_support.h"

namespace {

const PSStreamParam kParam = {kVideoCodecH264, kAudioCodecG711U, 1280, 720, 0, 0, 8000, 33000};

// A media file assembled from packetizer output.
class PsFile {
public:
    PsFile() : path_(dir_.File("hi000000.mp4")) {}
    ~PsFile() {
        if (fd_ >= 0) close(fd_);
    }

    uint32_t AddKey(const Bytes &frame, uint32_t n, uint32_t time) {
        return Add(frame, [&](uint8_t *out) {
            return makeIFrameHeader(frame.data(), frame.size(), out, n, 0, &kParam, time);
        });
    }
    uint32_t AddOther(const Bytes &frame, uint32_t n, uint32_t time) {
        return Add(frame, [&](uint8_t *out) {
            return makePFrameHeader(frame.data(), frame.size(), out, n, 0, time);
        });
    }
    uint32_t AddAudio(const Bytes &frame, uint32_t n) {
        return Add(frame, [&](uint8_t *out) { return makeAudioPSFrame(frame.data(), frame.size(), out, n); });
    }
    void AddRaw(const Bytes &bytes) { data_.insert(data_.end(), bytes.begin(), bytes.end()); }
    uint32_t size() const { return data_.size(); }

    int Open() {
        WriteWholeFile(path_, std::string(data_.begin(), data_.end()));
        fd_ = open(path_.c_str(), O_RDONLY);
        return fd_;
    }

private:
    template <typename Build>
    uint32_t Add(const Bytes &frame, Build build) {
        uint32_t at = data_.size();
        data_.resize(at + PSFrameBufferSize(frame.size()));
        int n = build(data_.data() + at);
        EXPECT_GT(n, 0);
        data_.resize(at + n);
        return at;
    }

    TempDir dir_;
    std::string path_;
    Bytes data_;
    int fd_ = -1;
};

struct Frame {
    int rc = -1;
    uint32_t offset = 0;
    int type = -1;
    Bytes data;
    uint32_t wallTime = 0;
    uint32_t pts = 0;
};

// One call; a bufSize given makes it the bounded read with that data end.
Frame Read(int fd, uint32_t offset, uint32_t bufSize = 0, uint32_t dataEnd = 0) {
    Frame f;
    f.offset = offset;
    f.data.resize(bufSize != 0 ? bufSize : 4 << 20);
    uint32_t length = 0;
    f.rc = bufSize != 0 ? libAVRecordPlayBackGetPSFrameBounded(fd, &f.offset, dataEnd, &f.type, f.data.data(),
                                                               bufSize, &length, &f.wallTime, &f.pts)
                        : libAVRecordPlayBackGetPSFrame(fd, &f.offset, &f.type, f.data.data(), &length,
                                                        &f.wallTime, &f.pts);
    f.data.resize(f.rc == 0 ? length : 0);
    return f;
}

TEST(PlaybackReader, WalksKeyOtherAndAudioFrames) {
    PsFile file;
    Bytes key = Concat({Nal({0x67}, 12, 1), Nal({0x68}, 3, 2), Nal({0x06}, 5, 3), Nal({0x65}, 150000, 4)});
    Bytes other = Nal({0x41}, 70000, 5);
    Bytes audio(160, 0x77);
    uint32_t keyAt = file.AddKey(key, 1, 1700000000);
    uint32_t otherAt = file.AddOther(other, 2, 1700000001);
    uint32_t audioAt = file.AddAudio(audio, 3);
    int fd = file.Open();

    EXPECT_EQ(libAVRecordPlayBackIsKeyFrame(fd, keyAt), 1);
    EXPECT_EQ(libAVRecordPlayBackIsKeyFrame(fd, otherAt), 0);
    EXPECT_EQ(libAVRecordPlayBackIsKeyFrame(fd, file.size()), -1);

    Frame f = Read(fd, keyAt);
    ASSERT_EQ(f.rc, 0);
    EXPECT_EQ(f.type, kPSFrameVideo);
    EXPECT_EQ(f.data, key);  // every part with its start code, split PES joined
    EXPECT_EQ(f.wallTime, 1700000000u);
    EXPECT_EQ(f.pts, 3600u);
    EXPECT_EQ(f.offset, otherAt);

    f = Read(fd, otherAt);
    ASSERT_EQ(f.rc, 0);
    EXPECT_EQ(f.data, other);
    EXPECT_EQ(f.wallTime, 1700000001u);
    EXPECT_EQ(f.pts, 7200u);
    EXPECT_EQ(f.offset, audioAt);

    f = Read(fd, audioAt);
    ASSERT_EQ(f.rc, 0);
    EXPECT_EQ(f.type, kPSFrameAudio);
    EXPECT_EQ(f.data, audio);
    EXPECT_EQ(f.pts, PSTimeStamp(4, kPsTimeStampRate));
    EXPECT_EQ(f.offset, file.size());
}

TEST(PlaybackReader, FrameEndsAtFirstBytesThatAreNoVideoPes) {
    struct Case {
        const char *name;
        Bytes tail;
    } cases[] = {
        {"end of file", {}},
        {"zeros", Bytes(64, 0)},
        {"record file header", Bytes(kRecordFileHeader, kRecordFileHeader + kRecordFileHeaderSize)},
    };
    for (const Case &c : cases) {
        PsFile file;
        Bytes other = Nal({0x41}, 500, 9);
        file.AddOther(other, 5, 0);
        file.AddRaw(c.tail);
        int fd = file.Open();
        Frame f = Read(fd, 0);
        ASSERT_EQ(f.rc, 0) << c.name;
        EXPECT_EQ(f.data, other) << c.name;
        EXPECT_EQ(f.offset, file.size() - c.tail.size()) << c.name;
    }
}

TEST(PlaybackReader, KeyFramesAreLimitedToTwoMebibytes) {
    Bytes big = Nal({0x65}, 0x200000 + 70000, 0x3C);
    PsFile file;
    uint32_t keyAt = file.AddKey(big, 1, 0);
    uint32_t otherAt = file.AddOther(big, 2, 0);
    int fd = file.Open();
    Frame f = Read(fd, keyAt);
    EXPECT_EQ(f.rc, -1);
    EXPECT_EQ(f.offset, keyAt);
    f = Read(fd, otherAt);
    ASSERT_EQ(f.rc, 0);
    EXPECT_EQ(f.data, big);
}

TEST(PlaybackReaderBounded, StaysInsideTheBufferAndTheSection) {
    // A stale PES packet of an earlier recording right behind the section.
    PsFile file;
    Bytes frame = Nal({0x41}, 100000, 1);
    file.AddOther(frame, 1, 0);
    uint32_t end = file.size();
    Bytes stale(kPesHeaderSize + 1000, 0x77);
    makePesHeader(stale.data(), 9, kPesStreamVideo, kPsTimeStampRate, 1000);
    file.AddRaw(stale);
    int fd = file.Open();
    EXPECT_EQ(Read(fd, 0, frame.size() - 1).rc, -1);
    Frame f = Read(fd, 0, frame.size(), end);
    ASSERT_EQ(f.rc, 0);
    EXPECT_EQ(f.data, frame);
    EXPECT_EQ(f.offset, end);
    EXPECT_EQ(Read(fd, 0, 1 << 20).data.size(), frame.size() + 1000);  // without the end: glued on
}

TEST(PlaybackReaderErrors, MalformedPacketsFailWithoutMovingOn) {
    Bytes pack(kPackHeaderSize);
    makePackHeader(pack.data(), 1, 0, kPsTimeStampRate, 0);
    struct Case {
        const char *name;
        Bytes bytes;
    } cases[] = {
        {"short file", {0, 0, 1, 0xBA}},
        {"no start code", Bytes(64, 0xAA)},
        {"unknown stream id", Concat({{0, 0, 1, 0xBD}, Bytes(60, 0)})},
        {"pack without a following start code", Concat({pack, Bytes(60, 0xFF)})},
        {"pack followed by audio", Concat({pack, {0, 0, 1, 0xC0}, Bytes(60, 0)})},
        {"PES length below its header", Concat({pack, {0, 0, 1, 0xE0, 0, 4}, Bytes(60, 0)})},
        {"audio payload past the end",
         {0, 0, 1, 0xC0, 0x10, 0x00, 0x80, 0x80, 5, 0x21, 0, 1, 0x1C, 0x21, 0, 0, 0, 0}},
    };
    LogEnable("test", 0);
    for (const Case &c : cases) {
        PsFile file;
        file.AddRaw(Bytes(8, 0));
        file.AddRaw(c.bytes);
        int fd = file.Open();
        testing::internal::CaptureStderr();
        Frame f = Read(fd, 8);
        std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(f.rc, -1) << c.name;
        EXPECT_EQ(f.offset, 8u) << c.name;
        // Each failure's line names the reader's own function, not a helper.
        EXPECT_TRUE(LogNamesFunction(log, "libAVRecordPlayBackGetPSFrame")) << c.name << "\n" << log;
        for (const char *helper : {"GetPSFrame", "ReadAudio", "ReadVideo", "GatherVideoPes"})
            EXPECT_FALSE(LogNamesFunction(log, helper)) << c.name << "\n" << log;
    }
    uint32_t offset = 0, length = 0;
    int type = 0;
    EXPECT_EQ(libAVRecordPlayBackGetPSFrame(-1, &offset, &type, nullptr, &length, nullptr, nullptr), -1);
}

}  // namespace
