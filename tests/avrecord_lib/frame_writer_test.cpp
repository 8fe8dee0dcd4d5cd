#include "avrecord_lib/frame_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "avrecord_lib/playback_reader.h"
#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "card_reader/index_check.h"
#include "common/file_io.h"
#include "common/log.h"
#include "support/card_fixture.h"
#include "support/es_frames.h"
#include "support/faulty_file_io.h"
#include "support/test_support.h"
#include "support/writer_fakes.h"

namespace {

const Bytes kH264Key =
    Concat({Nal({0x67, 0x42}, 10, 1), Nal({0x68, 0xCE}, 2, 2), Nal({0x65, 0x88}, 3000, 3)});
const Bytes kH264Idr = Nal({0x65, 0x88}, 3000, 3);
const Bytes kH264Other = Nal({0x41, 0x9A}, 800, 4);
const Bytes kH265Key = Concat({Nal({0x40, 0x01}, 20, 1), Nal({0x42, 0x01}, 30, 2), Nal({0x44, 0x01}, 5, 3),
                               Nal({0x26, 0x01}, 4000, 4)});
const Bytes kH265Idr = Nal({0x26, 0x01}, 4000, 4);
const Bytes kH265Other = Nal({0x02, 0x01}, 900, 5);

constexpr uint32_t kStartTime = 1700000000;

class FrameWriterTest : public ::testing::Test {
protected:
    void SetUp() override {
        MakeDirectories(card_);
        MakeSparseFile(card_ + kIndexFileName, kIndexFileSize);
        MakeSparseFile(media_, kMediaFileSize);
        g_encoding = RecordEncodingInfo{1280, 720, 25, 0, 7, 0x1234, 9, 0, 0, 0};
        g_wall = {kStartTime, 0};
        g_uptime = 5000;
        LS_RecordSetEncodingSource(TestEncoding);
        LS_RecordSetClocks(TestWall, TestUptime);
        SetRecordClockForTest(TestRecordClock);
    }

    void TearDown() override {
        LS_RecordSetStepHook(nullptr);
        LS_RecordSetSyncSeconds(0);
        LS_RecordClose();
        LS_RecordIndexRewrite();  // clears a card error a test left
        LS_RecordSetEncodingSource(nullptr);
        LS_RecordSetClocks(nullptr, nullptr);
        SetRecordClockForTest(nullptr);
    }

    // Index header for one media file, a section opened on it, writer armed.
    // With `used`, a first section of that many bytes (on the card) comes
    // before the one the writer records.
    void Open(uint32_t used = 0) {
        RecordConfigInfo *info = GetRecordConfigInfo();
        FileInfoHead *file = GetFileInfoHead();
        SectionInfoHead *section = GetSectionInfoHead();
        AV_RecordConfigInfoInit(info, 0, 1);
        memset(file, 0, sizeof *file);
        memset(section, 0, sizeof *section);
        AV_RecordFileConfigParamGet(info, file, section, 1);
        if (used != 0) {
            section->m_u32SectionSize = used;
            file->m_u32DataSize = used;
            int fd = AVFileOpen((card_ + kIndexFileName).c_str(), kAVFileModeReadWrite);
            AV_RecordSectionInfoHeadWrite(fd, file, section);
            AVFileClose(fd);
            AV_RecordFileConfigParamGet(info, file, section, 1);
        }
        ASSERT_EQ(LS_RecordInit(file, 0), 0);
    }

    // The card's index passes the check, and the records the next section
    // builds on are those on the card.
    void ExpectIndexAccountsForEveryFrame(const char *what) const {
        std::vector<IndexProblem> problems;
        CheckCardIndex(card_, &problems);
        for (const IndexProblem &p : problems) ADD_FAILURE() << what << ": " << FormatIndexProblem(p);
        std::string index = card_ + kIndexFileName;
        const FileInfoHead *file = GetFileInfoHead();
        const SectionInfoHead *section = GetSectionInfoHead();
        EXPECT_EQ(ReadFileAt(index, SectionInfoHeadPosition(0, section->m_u16SectionNo), sizeof *section),
                  RecordBytes(*section))
            << what;
        EXPECT_EQ(ReadFileAt(index, FileInfoHeadPosition(0), sizeof *file), RecordBytes(*file)) << what;
    }

    static int Write(const Bytes &frame, uint8_t mark = 0, int kind = kFrameKindVideo, int channel = 0) {
        AVDataInfo info{};
        info.AVDataLen = static_cast<int32_t>(frame.size());
        info.AVSource = kind;
        info.KeyFrameFlag = mark;
        return libAVRecordWriteFrame(channel, kind, frame.data(), &info);
    }

    std::string MediaAt(uint32_t offset, size_t length) const { return ReadFileAt(media_, offset, length); }

    KeyFrameEntry Entry(uint32_t k) const {
        KeyFrameEntry entry;
        memcpy(&entry, MediaAt(kKeyFrameTableOffset + kKeyFrameEntrySize * k, sizeof entry).data(),
               sizeof entry);
        return entry;
    }

    // Every frame of the section through the playback reader.
    std::vector<Bytes> ReadSection() const {
        const SectionInfoHead *section = GetSectionInfoHead();
        int fd = open(media_.c_str(), O_RDONLY);
        std::vector<Bytes> frames;
        Bytes buf(1 << 20);
        uint32_t end = section->m_u32SectionOffset + section->m_u32SectionSize;
        for (uint32_t at = section->m_u32SectionOffset + kRecordFileHeaderSize; at < end;) {
            int type;
            uint32_t length;
            if (libAVRecordPlayBackGetPSFrameBounded(fd, &at, end, &type, buf.data(), buf.size(), &length,
                                                     nullptr, nullptr) != 0) {
                ADD_FAILURE() << "unreadable frame at " << at;
                break;
            }
            frames.emplace_back(buf.begin(), buf.begin() + length);
        }
        close(fd);
        return frames;
    }

    ScopedRoot root_;
    std::string card_ = root_.Under("/media/SDCard/");
    std::string media_ = card_ + "hi000000.mp4";
};

TEST_F(FrameWriterTest, SectionStartsAtFirstKeyFrameWithRecordFileHeader) {
    Open();
    EXPECT_EQ(Write(kH264Other), -1);
    EXPECT_EQ(g_u32Offset, 0u);
    EXPECT_EQ(GetSectionInfoHead()->m_u32SectionSize, 0u);

    ASSERT_EQ(Write(kH264Key), 0);
    uint32_t keyLength = g_u32Offset;
    EXPECT_EQ(MediaAt(0, 4), "IMKH");
    EXPECT_EQ(MediaAt(kRecordFileHeaderSize, 4), std::string("\0\0\1\xBA", 4));
    KeyFrameEntry entry = Entry(0);
    EXPECT_EQ(entry.m_u32HeadFlag, kKeyFrameEntryFlag);
    EXPECT_EQ(entry.m_u8KeyType, kKeyTypeParameterSet);
    EXPECT_EQ(entry.m_u32FrameOffset, 0u);
    EXPECT_EQ(entry.m_u32FrameSize, keyLength);
    EXPECT_EQ(entry.m_u32Time, kStartTime);

    ASSERT_EQ(Write(kH264Other), 0);
    ASSERT_EQ(Write(kH264Key), 0);
    const SectionInfoHead *section = GetSectionInfoHead();
    EXPECT_EQ(section->m_u32VideoFrameSum, 3u);
    EXPECT_EQ(section->m_u32KeyFrameSum, 2u);
    EXPECT_EQ(section->m_u32SectionSize, g_u32Offset);
    EXPECT_EQ(section->m_u16Width, 1280);
    EXPECT_EQ(section->m_u8FrameRate, 25);
    EXPECT_EQ(section->m_u8VideoParam, 9);
    EXPECT_EQ(Entry(1).m_u32FrameOffset + Entry(1).m_u32FrameSize, g_u32Offset);
    EXPECT_EQ(GetFileInfoHead()->m_u32KeyFrameSum, 2u);

    // The index on the card is what the writer holds.
    std::string index = card_ + kIndexFileName;
    EXPECT_EQ(ReadFileAt(index, SectionInfoHeadPosition(0, 1), sizeof *section), RecordBytes(*section));
    EXPECT_EQ(ReadFileAt(index, FileInfoHeadPosition(0), sizeof(FileInfoHead)),
              RecordBytes(*GetFileInfoHead()));
    EXPECT_EQ(ReadFileAt(index, 0, sizeof(RecordConfigInfo)), RecordBytes(*GetRecordConfigInfo()));
    EXPECT_EQ(GetFileInfoHead()->m_u32DataSize, g_u32Offset);

    std::vector<Bytes> frames = ReadSection();
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0], kH264Key);
    EXPECT_EQ(frames[1], kH264Other);
    EXPECT_EQ(frames[2], kH264Key);
}

TEST_F(FrameWriterTest, KeyFramesRecognisedFromTheirLeadingNal) {
    struct Case {
        const char *name;
        Bytes first;
        int result;
        uint8_t streamType;  // stream map byte of a written key frame
    } cases[] = {
        {"H.264 SPS-led", kH264Key, 0, 0x1B},          {"H.264 IDR without SPS", kH264Idr, -1, 0},
        {"H.265 VPS-led", kH265Key, 0, 0x24},          {"H.265 IDR without VPS", kH265Idr, -1, 0},
        {"H.265 trailing picture", kH265Other, -1, 0},
    };
    for (const Case &c : cases) {
        Open();
        EXPECT_EQ(Write(c.first), c.result) << c.name;
        if (c.result == 0) {
            uint32_t mapAt = kRecordFileHeaderSize + kPackHeaderSize + kSystemHeaderSize;
            EXPECT_EQ(static_cast<uint8_t>(MediaAt(mapAt + 12, 1)[0]), c.streamType) << c.name;
        }
        LS_RecordClose();
    }
}

TEST_F(FrameWriterTest, FrameTimesIgnoreLargeWallClockSteps) {
    struct Case {
        int wallStep;
        int expectedShift;  // frame time after the step and one second of uptime
    } cases[] = {{120, 1}, {-120, 1}, {30, 31}, {-30, -29}, {59, 60}, {60, 1}};
    for (const Case &c : cases) {
        g_wall = {kStartTime, 0};
        g_uptime = 5000;
        Open();
        ASSERT_EQ(Write(kH264Key), 0);
        g_wall.tv_sec += c.wallStep + 1;
        g_uptime += 1;
        ASSERT_EQ(Write(kH264Other), 0);
        EXPECT_EQ(GetSectionInfoHead()->m_u32EndTime, kStartTime + c.expectedShift) << c.wallStep;
        LS_RecordClose();
    }
}

// Frame times go on past 2038-01-19 03:14:07 UTC unchanged; past the card's
// last second (2106-02-07 06:28:15 UTC) a frame is not written at all.
TEST_F(FrameWriterTest, FrameTimesSpan2038AndStopAtTheLastCardSecond) {
    g_wall = {0x7ffffffe, 0};
    Open();
    ASSERT_EQ(Write(kH264Key), 0);
    for (int second = 0; second < 2; ++second) {
        g_wall.tv_sec += 1;
        g_uptime += 1;
        ASSERT_EQ(Write(second == 0 ? kH264Other : kH264Key), 0);
    }
    EXPECT_EQ(GetSectionInfoHead()->m_u32StartTime, 0x7ffffffeu);
    EXPECT_EQ(GetSectionInfoHead()->m_u32EndTime, 0x80000000u);
    EXPECT_EQ(Entry(1).m_u32Time, 0x80000000u);
    ExpectIndexAccountsForEveryFrame("2038");
    LS_RecordClose();

    g_wall = {0xfffffffe, 0};
    Open();
    ASSERT_EQ(Write(kH264Key), 0);
    g_wall.tv_sec += 1;
    g_uptime += 1;
    ASSERT_EQ(Write(kH264Other), 0);
    uint32_t size = GetSectionInfoHead()->m_u32SectionSize;
    g_wall.tv_sec += 1;
    g_uptime += 1;
    EXPECT_EQ(Write(kH264Key), -1);
    EXPECT_EQ(Write(kH264Other), -1);
    EXPECT_EQ(GetSectionInfoHead()->m_u32EndTime, 0xffffffffu);
    EXPECT_EQ(GetSectionInfoHead()->m_u32SectionSize, size);
    ExpectIndexAccountsForEveryFrame("2106");
}

// A key frame refused for its time leaves the section unopened: the
// P-frames behind it are refused too, and the next key frame that can be
// stored opens the section with the record file header.
TEST_F(FrameWriterTest, KeyFrameRefusedAtTheRangeEdgeLeavesTheSectionUnopened) {
    g_wall = {0xffffffff, 0};
    Open();
    g_wall.tv_sec += 1;
    g_uptime += 1;
    EXPECT_EQ(Write(kH264Key), -1);
    EXPECT_EQ(Write(kH264Other), -1);
    EXPECT_EQ(GetSectionInfoHead()->m_u32SectionSize, 0u);
    EXPECT_EQ(GetFileInfoHead()->m_u32DataSize, 0u);

    g_wall.tv_sec -= 1;  // the clock set back inside the card's range
    ASSERT_EQ(Write(kH264Key), 0);
    ASSERT_EQ(Write(kH264Other), 0);
    EXPECT_EQ(MediaAt(0, kRecordFileHeaderSize),
              std::string(reinterpret_cast<const char *>(kRecordFileHeader), kRecordFileHeaderSize));
    std::vector<Bytes> frames = ReadSection();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0], kH264Key);
    ExpectIndexAccountsForEveryFrame("after the refused key frame");
}

// Rotation swaps the recorded size; descriptor-marked key frames get an
// entry only from 345600 recorded pixels on.
TEST_F(FrameWriterTest, RecordedPictureSizeRotationAndMarkedEntries) {
    struct Case {
        uint32_t width, height, rotate;
        uint16_t recordedWidth, recordedHeight;
        uint32_t entries;  // after the SPS-led first frame and one marked IDR
    } cases[] = {
        {640, 480, 0, 640, 480, 1},   {720, 480, 0, 720, 480, 2},   {720, 480, 1, 480, 720, 2},
        {1280, 720, 2, 1280, 720, 2}, {1280, 720, 3, 720, 1280, 2},
    };
    for (const Case &c : cases) {
        g_encoding.u32Width = c.width;
        g_encoding.u32Height = c.height;
        g_encoding.u32RotateMode = c.rotate;
        Open();
        ASSERT_EQ(Write(kH264Key), 0);
        ASSERT_EQ(Write(kH264Idr, 1), 0);
        EXPECT_EQ(GetSectionInfoHead()->m_u16Width, c.recordedWidth);
        EXPECT_EQ(GetSectionInfoHead()->m_u16Height, c.recordedHeight);
        uint16_t size[2];
        memcpy(size, MediaAt(kRecordFileHeaderSize + 36 + 16, 4).data(), 4);  // stream map width, height
        EXPECT_EQ(size[0], c.recordedWidth);
        EXPECT_EQ(size[1], c.recordedHeight);
        EXPECT_EQ(GetSectionInfoHead()->m_u32KeyFrameSum, c.entries) << c.width << "x" << c.height;
        if (c.entries == 2) {
            EXPECT_EQ(Entry(1).m_u8KeyType, kKeyTypeEncoderMark);
        }
        LS_RecordClose();
    }
    // The mark wins over the parameter set at any size.
    Open();
    ASSERT_EQ(Write(kH264Key, 1), 0);
    EXPECT_EQ(Entry(0).m_u8KeyType, kKeyTypeEncoderMark);
}

// An audio codec type other than 0, 1 and 3 keeps the audio code in force:
// audio is still recorded, and the stream map takes the type and the
// channel's own audio values.
TEST_F(FrameWriterTest, AudioFollowsTheVideoCounterWhateverTheCodecType) {
    struct Case {
        uint32_t audioType;
        uint8_t streamType;  // stream map byte; 0: left as the buffer holds it
        uint16_t sampleRate;
    } cases[] = {{0, 0x91, 8000}, {1, 0x90, 8000}, {3, 0x0F, 48000}, {2, 0, 16000}, {7, 0, 16000}};
    g_encoding.u32AudioSampleRate = 16000;
    g_encoding.u32AudioValue = 24000;
    Bytes audio(320, 0x5A);
    const uint32_t mapAt = kRecordFileHeaderSize + 36;  // behind the pack and system headers
    for (const Case &c : cases) {
        g_encoding.u32AudioCodeType = c.audioType;
        Open();
        EXPECT_EQ(Write(audio, 0, kFrameKindAudio), -1);  // nothing before the first key frame
        ASSERT_EQ(Write(kH264Key), 0);
        uint32_t at = g_u32Offset;
        EXPECT_EQ(Write(audio, 0, kFrameKindAudio), 0) << c.audioType;
        EXPECT_EQ(GetSectionInfoHead()->m_u32VideoFrameSum, 1u);
        EXPECT_EQ(GetSectionInfoHead()->m_u8AudioCodeType, c.audioType);
        if (c.streamType != 0) {
            EXPECT_EQ(static_cast<uint8_t>(MediaAt(mapAt + 28, 1)[0]), c.streamType);
        }
        uint16_t rate;
        memcpy(&rate, MediaAt(mapAt + 32, 2).data(), 2);
        EXPECT_EQ(rate, c.sampleRate) << c.audioType;
        std::string pes = MediaAt(at, kPesHeaderSize);
        EXPECT_EQ(static_cast<uint8_t>(pes[3]), 0xC0);
        EXPECT_EQ(PSDecodePts(reinterpret_cast<const uint8_t *>(&pes[9])), PSTimeStamp(3, kPsTimeStampRate));
        EXPECT_EQ(g_u32Offset, at + kPesHeaderSize + audio.size());
        LS_RecordClose();
    }
}

// Writes larger than an index record fail.
ssize_t FailLargeWrites(int fd, const void *buf, size_t length) {
    if (length > sizeof(RecordConfigInfo)) {
        errno = EIO;
        return -1;
    }
    return PosixFileIo().write(fd, buf, length);
}

// A refused media write ends the section at the last frame known written:
// without flushes the last frame whose writes all succeeded, with them the
// last good flush. The card's index then claims nothing the card lacks,
// the frames rolled back are counted lost, and the writer takes no frame
// (counting the failed channel's video as lost) until the index could be
// written again.
TEST_F(FrameWriterTest, FailedWriteEndsTheSectionAtTheLastFrameKnownWritten) {
    for (uint32_t syncSeconds : {0u, 5u}) {
        std::string what = "SyncSeconds " + std::to_string(syncSeconds);
        LS_RecordSetSyncSeconds(syncSeconds);
        g_uptime = 5000;
        Open();
        WriterCounters before = LS_RecordCounters();
        ASSERT_EQ(Write(kH264Key), 0);
        for (int second = 1; second <= 6; ++second) {
            g_uptime = 5000 + second;
            ASSERT_EQ(Write(kH264Other), 0);
        }
        // Known written: all 7 frames without flushes; with them the 6 up to
        // the flush at +5 s.
        uint32_t known = syncSeconds == 0 ? 7 : 6;
        FileIoOps ops = PosixFileIo();
        ops.write = FailLargeWrites;
        SetFileIo(&ops);
        EXPECT_EQ(Write(kH264Key), -1) << what;
        SetFileIo(nullptr);
        EXPECT_EQ(LS_RecordCardError(), EIO) << what;
        EXPECT_EQ(Write(kH264Other), 0) << what;  // not taken, counted lost
        WriterCounters after = LS_RecordCounters();
        EXPECT_EQ(after.framesWritten - before.framesWritten, known) << what;
        EXPECT_EQ(after.framesLost - before.framesLost, 9 - known) << what;
        EXPECT_EQ(after.writeErrors - before.writeErrors, 1u) << what;
        EXPECT_EQ(GetSectionInfoHead()->m_u32VideoFrameSum, known) << what;
        EXPECT_EQ(ReadSection().size(), known) << what;
        ExpectIndexAccountsForEveryFrame(what.c_str());
        LS_RecordClose();
        EXPECT_EQ(LS_RecordIndexRewrite(), 0) << what;
        EXPECT_EQ(LS_RecordCardError(), 0) << what;
    }
}

// A short write, a failed key-frame entry, a failed index write and a
// failed flush count as failures too; the section never claims the frame.
TEST_F(FrameWriterTest, EveryWriteOfAFrameIsLookedAt) {
    LS_RecordSetSyncSeconds(1);
    for (int n = 1; n <= 5; ++n) {  // media, key-frame entry, section, file, header
        std::string what = "write #" + std::to_string(n) + " of the key frame short";
        Open();
        {
            FaultyFileIo io;
            io.ShortWriteNth(n, 3);
            g_uptime += 2;
            EXPECT_EQ(Write(kH264Key), -1) << what;
        }
        EXPECT_NE(LS_RecordCardError(), 0) << what;
        EXPECT_EQ(GetSectionInfoHead()->m_u32VideoFrameSum, 0u) << what;
        LS_RecordClose();
        ASSERT_EQ(LS_RecordIndexRewrite(), 0) << what;
    }
    Open();
    FileIoOps ops = PosixFileIo();
    ops.fdatasync = [](int) {
        errno = EIO;
        return -1;
    };
    SetFileIo(&ops);
    g_uptime += 2;
    EXPECT_EQ(Write(kH264Key), -1) << "flush";
    SetFileIo(nullptr);
    EXPECT_EQ(GetSectionInfoHead()->m_u32VideoFrameSum, 0u) << "flush";
    ExpectIndexAccountsForEveryFrame("flush");
    LS_RecordClose();
    ASSERT_EQ(LS_RecordIndexRewrite(), 0);

    Open();
    {
        FaultyFileIo io;
        io.FailNth(FaultyFileIo::Op::kSeek, 1);
        EXPECT_EQ(Write(kH264Key), -1) << "media seek";
    }
    EXPECT_EQ(GetSectionInfoHead()->m_u32VideoFrameSum, 0u) << "media seek";
    LS_RecordClose();
    ASSERT_EQ(LS_RecordIndexRewrite(), 0);
}

// The record run ends (closes the writer) on its own thread while a frame
// is held between two of the writer's steps; the close may finish first.
WriterStep g_holdAt;
std::thread g_runEnd;
std::atomic<bool> g_runEnded;

void EndRunDuringFrame(WriterStep step) {
    if (step != g_holdAt || g_runEnd.joinable()) return;
    g_runEnd = std::thread([] {
        LS_RecordClose();
        g_runEnded = true;
    });
    for (int ms = 0; ms < 100 && !g_runEnded; ++ms) usleep(1000);
}

// A frame in flight when the run ends lands whole in its section: the end
// waits for it, and nothing of it is left for the next section to inherit.
TEST_F(FrameWriterTest, RunEndWaitsForTheFrameInFlight) {
    for (WriterStep step : {WriterStep::kAdmitted, WriterStep::kMediaWritten, WriterStep::kKeyEntryWritten,
                            WriterStep::kRecordsUpdated}) {
        std::string what = "held at step " + std::to_string(static_cast<int>(step));
        Open();
        ASSERT_EQ(Write(kH264Key), 0);
        ASSERT_EQ(Write(kH264Other), 0);
        g_holdAt = step;
        g_runEnded = false;
        LS_RecordSetStepHook(EndRunDuringFrame);
        EXPECT_EQ(Write(kH264Key), 0);
        g_runEnd.join();
        LS_RecordSetStepHook(nullptr);
        EXPECT_EQ(GetSectionInfoHead()->m_u32KeyFrameSum, 2u) << what;
        ExpectIndexAccountsForEveryFrame(what.c_str());
    }
}

// Past the full mark the sizes stop growing, so no section could account
// for another frame: none is written until the run moves to the next file.
TEST_F(FrameWriterTest, NoFrameIsTakenOnceTheFileIsFull) {
    Open(kMediaFileFullSize - 1000);
    ASSERT_EQ(Write(kH264Key), 0);  // crosses the mark
    uint32_t end = g_u32Offset;
    ASSERT_TRUE(AV_RecordFileInfoHeadIsFull(GetFileInfoHead()));
    EXPECT_EQ(Write(kH264Key), 0);
    EXPECT_EQ(Write(kH264Other), 0);
    EXPECT_EQ(g_u32Offset, end);
    EXPECT_EQ(GetSectionInfoHead()->m_u32KeyFrameSum, 1u);
    EXPECT_EQ(GetSectionInfoHead()->m_u32VideoFrameSum, 1u);
    ExpectIndexAccountsForEveryFrame("full file");
}

// One frame a second: with an interval of 5 s the media file and then the
// index are flushed after the frame's last index write at +5 s and +10 s;
// with 0 nothing is flushed.
TEST_F(FrameWriterTest, SyncSecondsFlushesMediaThenIndexAfterTheFrame) {
    FaultyFileIo io;
    io.LogWrites();
    LS_RecordSetSyncSeconds(5);
    Open();
    std::vector<int> flushedAt;
    for (int second = 0; second <= 12; ++second) {
        g_uptime = 5000 + second;
        g_wall.tv_sec = kStartTime + second;
        size_t before = io.syncLog().size();
        ASSERT_EQ(Write(second == 0 ? kH264Key : kH264Other), 0);
        if (io.syncLog().size() != before) flushedAt.push_back(second);
    }
    LS_RecordSetSyncSeconds(0);
    g_uptime += 60;
    ASSERT_EQ(Write(kH264Other), 0);

    EXPECT_EQ(flushedAt, (std::vector<int>{5, 10}));
    ASSERT_EQ(io.syncLog().size(), 4u);
    for (size_t k = 0; k < 4; k += 2) {
        const SyncLogEntry &media = io.syncLog()[k];
        const SyncLogEntry &index = io.syncLog()[k + 1];
        EXPECT_EQ(media.path, media_);
        EXPECT_EQ(index.path, card_ + kIndexFileName);
        EXPECT_EQ(index.writesBefore, media.writesBefore);
        const WriteLogEntry &last = io.writeLog()[media.writesBefore - 1];
        EXPECT_EQ(last.path, card_ + kIndexFileName);  // the index header, the frame's last write
        EXPECT_EQ(last.offset, 0);
    }
}

// The writer keeps the media descriptor in two places; the second close
// is made on -1, so a descriptor number another thread opened since is
// never closed under it.
TEST_F(FrameWriterTest, SecondCloseOfTheMediaDescriptorIsOnMinusOne) {
    static std::vector<int> closed;
    static FileIoOps counting = PosixFileIo();
    counting.close = [](int fd) {
        closed.push_back(fd);
        return PosixFileIo().close(fd);
    };
    Open();
    ASSERT_EQ(Write(kH264Key), 0);
    closed.clear();
    SetFileIo(&counting);
    LS_RecordClose();
    SetFileIo(nullptr);
    ASSERT_EQ(closed.size(), 2u);  // the index and the media file, once each
    EXPECT_NE(closed[0], closed[1]);
}

// A frame's log lines (section start, key-frame entry, a failed flush) name
// the writer's function: field logs are searched by it.
TEST_F(FrameWriterTest, LogLinesNameTheWriteFunction) {
    static FileIoOps failingSync = PosixFileIo();
    failingSync.fdatasync = [](int) { return -1; };
    LogEnable("test", 0);
    Open();
    SetFileIo(&failingSync);
    LS_RecordSetSyncSeconds(1);
    g_uptime += 5;
    testing::internal::CaptureStderr();
    EXPECT_EQ(Write(kH264Key), -1);  // the flush failed
    std::string log = testing::internal::GetCapturedStderr();
    LS_RecordSetSyncSeconds(0);
    SetFileIo(nullptr);
    for (const char *line : {"Now RotateAngle", "m_u8AudioCodeType", "PlayTime", "KeyFrameTime",
                             "fdatasync failed", "card write failed"})
        EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
    EXPECT_TRUE(LogNamesFunction(log, "libAVRecordWriteFrame")) << log;
    for (const char *helper : {"StartSection", "WriteKeyFrameEntry", "SyncIfDue", "FailWrite"})
        EXPECT_FALSE(LogNamesFunction(log, helper)) << helper << "\n" << log;
}

TEST_F(FrameWriterTest, ErrorsAndIgnoredFrames) {
    EXPECT_EQ(LS_RecordInit(nullptr, 0), -1);
    EXPECT_EQ(Write(kH264Key), 0);  // writer closed: ignored

    Open();
    EXPECT_EQ(Write(kH264Key, 0, kFrameKindVideo, 1), 0);  // another channel: ignored
    EXPECT_EQ(g_u32Offset, 0u);
    EXPECT_EQ(LS_RecordVideoFrameTally(1), 0u);
    AVDataInfo negative{};
    negative.AVDataLen = -5;
    EXPECT_EQ(libAVRecordWriteFrame(0, kFrameKindVideo, kH264Key.data(), &negative), -1);
    EXPECT_EQ(libAVRecordWriteFrame(0, kFrameKindVideo, nullptr, &negative), -1);
    EXPECT_EQ(Write(kH264Key), 0);
    LS_RecordClose();
    EXPECT_EQ(g_u32Offset, 0u);
    EXPECT_EQ(Write(kH264Other), 0);  // after the close: ignored

    RemoveTree(card_);
    EXPECT_EQ(LS_RecordInit(GetFileInfoHead(), 0), -1);
}

}  // namespace
