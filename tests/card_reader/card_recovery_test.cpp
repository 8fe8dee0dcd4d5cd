#include "card_reader/card_recovery.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <vector>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "avrecord_lib/record_section.h"
#include "card_reader/index_check.h"
#include "card_reader/recovered_view.h"
#include "common/card_layout.h"
#include "support/card_fixture.h"
#include "support/es_frames.h"
#include "support/test_support.h"
#include "support/writer_fakes.h"

namespace {

const Bytes kH264Key =
    Concat({Nal({0x67, 0x42}, 10, 1), Nal({0x68, 0xCE}, 2, 2), Nal({0x65, 0x88}, 3000, 3)});
const Bytes kH264Other = Nal({0x41, 0x9A}, 800, 4);
const Bytes kH265Key = Concat({Nal({0x40, 0x01}, 20, 1), Nal({0x42, 0x01}, 30, 2), Nal({0x44, 0x01}, 5, 3),
                               Nal({0x26, 0x01}, 4000, 4)});
const Bytes kH265Other = Nal({0x02, 0x01}, 900, 5);
const Bytes kAudio(320, 0xD5);

constexpr uint32_t kStart = 1750000000;
constexpr uint32_t kFileSum = 2;
// The record type a fresh configuration starts sections with.
constexpr uint8_t kRecordType = 0;
// Index bytes holding the header, the file records and the section blocks
// of the card's files.
constexpr uint32_t kIndexRecordsEnd = kSectionBlockOffset + kSectionBlockSize * kFileSum;

int WriteFrame(const Bytes &frame, int kind, uint8_t mark) {
    AVDataInfo info{};
    info.AVDataLen = static_cast<int32_t>(frame.size());
    info.AVSource = kind;
    info.KeyFrameFlag = mark;
    return libAVRecordWriteFrame(0, kind, frame.data(), &info);
}

// Cards recorded through the frame writer, as the daemon records them.
class CardRecoveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_encoding = RecordEncodingInfo{1280, 720, 25, 0, 7, 0x12, 0, 1, 0, 0};
        g_uptime = 1000;
        LS_RecordSetEncodingSource(TestEncoding);
        LS_RecordSetClocks(TestWall, TestUptime);
        SetRecordClockForTest(TestRecordClock);
        card_ = NewCard("card");
    }
    void TearDown() override {
        LS_RecordClose();
        LS_RecordSetCardDir(nullptr);
        LS_RecordSetEncodingSource(nullptr);
        LS_RecordSetClocks(nullptr, nullptr);
        SetRecordClockForTest(nullptr);
    }

    std::string NewCard(const std::string &name) const {
        std::string dir = tmp_.File(name) + "/";
        MakeDirectories(dir);
        MakeSparseCard(dir, kFileSum);
        RecordConfigInfo header;
        AV_RecordConfigInfoInit(&header, 0, kFileSum);
        WriteFileAt(dir + kIndexFileName, 0, RecordBytes(header));
        return dir;
    }

    // One section of whole seconds from `start` on `card`: a key frame each
    // second, audio behind every video frame when asked. With `recycle` the
    // file's record is dropped first, as the run does for the next lap.
    void Record(const std::string &card, uint32_t start, uint32_t seconds, bool audio = false,
                bool recycle = false, const Bytes &key = kH264Key, const Bytes &other = kH264Other) {
        LS_RecordSetCardDir(card.c_str());
        RecordConfigInfo *info = GetRecordConfigInfo();
        FileInfoHead *file = GetFileInfoHead();
        int fd = AVFileOpen((card + kIndexFileName).c_str(), kAVFileModeReadWrite);
        AV_RecordConfigInfoRead(fd, info);
        AV_RecordFileInfoHeadRead(fd, info, file);
        AVFileClose(fd);
        if (recycle) memset(file, 0, sizeof *file);
        g_wall = {static_cast<time_t>(start), 0};
        ASSERT_EQ(AV_RecordFileConfigParamGet(info, file, GetSectionInfoHead(), kRecordType), 0);
        ASSERT_EQ(LS_RecordInit(file, 0), 0);
        uint32_t fps = g_encoding.u32FrameRate;
        for (uint32_t s = 0; s < seconds; ++s, ++g_uptime) {
            for (uint32_t f = 0; f < fps; ++f) {
                g_wall = {static_cast<time_t>(start + s), static_cast<suseconds_t>(f * 1000000 / fps)};
                ASSERT_EQ(WriteFrame(f == 0 ? key : other, kFrameKindVideo, f == 0), 0);
                if (audio) {
                    ASSERT_EQ(WriteFrame(kAudio, kFrameKindAudio, 0), 0);
                }
            }
        }
        LS_RecordClose();
        g_uptime += 100;
    }

    // A card with three sections: plain, with audio after a clock jump, and
    // H.265 at another picture size.
    void RecordThreeSections() {
        Record(card_, kStart, 4);
        Record(card_, kStart + 3600, 3, true);
        g_encoding.u32Width = 640;
        g_encoding.u32Height = 480;
        Record(card_, kStart + 7200, 3, false, false, kH265Key, kH265Other);
    }

    std::string Index(const std::string &card) const {
        return ReadFileAt(card + kIndexFileName, 0, kIndexRecordsEnd);
    }
    std::string KeyTable(uint32_t fileNo) const {
        return ReadFileAt(MediaFilePath(card_, fileNo), kKeyFrameTableOffset, 64 * kKeyFrameEntrySize);
    }

    // Recovers card_ into a fresh output folder; the index written there.
    std::string RecoverToOutput(CardRecovery *recovery) {
        std::string why;
        EXPECT_EQ(RecoverCard(card_, recovery, &why), 0) << why;
        std::string out = tmp_.File("out" + std::to_string(++outputs_));
        std::vector<std::string> written;
        EXPECT_EQ(RecoveryWriteOutput(card_, RecoveryPatches(*recovery, false), out, &written, &why), 0)
            << why;
        return ReadFileAt(out + "/" + kIndexFileName, 0, kIndexRecordsEnd);
    }

    static bool Mentions(const std::vector<IndexProblem> &list, const std::string &text) {
        for (const IndexProblem &p : list) {
            if (p.text.find(text) != std::string::npos) return true;
        }
        return false;
    }

    TempDir tmp_;
    std::string card_;
    int outputs_ = 0;
};

TEST_F(CardRecoveryTest, IntactIndexAgreesAndNothingChanges) {
    RecordThreeSections();
    CardRecovery recovery;
    std::string index = Index(card_);
    EXPECT_EQ(RecoverToOutput(&recovery), index);
    EXPECT_TRUE(recovery.changes.empty()) << FormatIndexProblem(recovery.changes.front());
    ASSERT_EQ(recovery.files[0].sections.size(), 3u);
    EXPECT_EQ(recovery.files[0].sections[1].m_u8AudioCodeType, kSectionAudioG711A);
    EXPECT_EQ(recovery.files[0].frames, 4u * 25 + 3 * 50 + 3 * 25);
    EXPECT_TRUE(recovery.files[0].remnants.empty());
}

// Whatever happened to the index alone, the rebuilt one is the daemon's,
// byte for byte: times, sizes, offsets, counts and media fields.
TEST_F(CardRecoveryTest, IndexDamageAloneIsUndoneByteForByte) {
    RecordThreeSections();
    const std::string index = Index(card_);
    const std::string keys = KeyTable(0);
    std::string other = NewCard("other");
    Record(other, kStart - 86400, 5);
    const std::string otherIndex = ReadWholeFile(other + kIndexFileName);
    const std::string path = card_ + kIndexFileName;
    struct Damage {
        const char *what;
        std::function<void()> apply;
    } damages[] = {
        {"header zeroed", [&] { WriteFileAt(path, 0, std::string(sizeof(RecordConfigInfo), '\0')); }},
        {"whole index zeroed", [&] { WriteFileAt(path, 0, std::string(kIndexFileSize, '\0')); }},
        {"random bytes over records",
         [&] {
             WriteFileAt(path, FileInfoHeadPosition(0) + 4, "\x13\x57\x9b\xdf\x24\x68\xac\xe0\x11\x22\x33");
             WriteFileAt(path, SectionInfoHeadPosition(0, 2) + 8, "\xde\xad\xbe\xef\xde\xad\xbe\xef");
             WriteFileAt(path, SectionInfoHeadPosition(0, 3), "\xff\xff\xff\xff");
         }},
        {"key-frame table overwritten",
         [&] { WriteFileAt(MediaFilePath(card_, 0), kKeyFrameTableOffset + 30, std::string(45, '\x7e')); }},
        {"truncated index", [&] { ASSERT_EQ(truncate(path.c_str(), SectionInfoHeadPosition(0, 2)), 0); }},
        {"index of another card", [&] { WriteFileAt(path, 0, otherIndex); }},
    };
    for (const Damage &damage : damages) {
        damage.apply();
        CardRecovery recovery;
        EXPECT_EQ(RecoverToOutput(&recovery), index) << damage.what;
        EXPECT_FALSE(recovery.changes.empty()) << damage.what;
        // In place the key-frame table is put right as well.
        std::string why;
        if (std::string(damage.what) != "truncated index") {
            ASSERT_GE(RecoveryWriteInPlace(card_, RecoveryPatches(recovery, false), &why), 0) << why;
            EXPECT_EQ(Index(card_), index) << damage.what;
            EXPECT_EQ(KeyTable(0), keys) << damage.what;
        }
        MakeSparseFile(path, kIndexFileSize);
        WriteFileAt(path, 0, index);
    }
}

// After a power cut the media file holds frames the index never counted:
// the rebuilt index is the one the daemon would have written for them.
TEST_F(CardRecoveryTest, PowerCutDataBeyondTheIndexIsCounted) {
    Record(card_, kStart, 3, true);
    const std::string behind = ReadWholeFile(card_ + kIndexFileName);
    Record(card_, kStart + 3, 4, true);
    const std::string index = Index(card_);
    WriteFileAt(card_ + kIndexFileName, 0, behind);
    CardRecovery recovery;
    EXPECT_EQ(RecoverToOutput(&recovery), index);
    EXPECT_TRUE(Mentions(recovery.changes, "section record rebuilt")) << recovery.changes.size();
    EXPECT_TRUE(
        Mentions(recovery.changes, "file record corrected (end time, data size, sections, key frames)"));
}

// The next lap overwrote the start of a file: the index keeps only the new
// lap; the view adds the older frames behind it as remnants, none twice.
TEST_F(CardRecoveryTest, OverwrittenLapLeavesRemnantsOnlyInTheView) {
    Record(card_, kStart, 12, true);
    Record(card_, kStart + 86400, 3, false, true);
    const std::string index = Index(card_);
    CardRecovery recovery;
    EXPECT_EQ(RecoverToOutput(&recovery), index);
    EXPECT_TRUE(recovery.changes.empty());
    const RecoveredFile &file = recovery.files[0];
    ASSERT_EQ(file.sections.size(), 1u);
    ASSERT_FALSE(file.remnants.empty());
    EXPECT_GE(file.remnants[0].m_u32SectionOffset + kRecordFileHeaderSize, file.record.m_u32DataSize);
    EXPECT_LT(file.remnants[0].m_u32StartTime, kStart + 12);
    EXPECT_GT(file.remnantFrames, 12u * 50 / 2);

    RecoveredViewInstall(card_, RecoveryPatches(recovery, true));
    std::vector<uint32_t> sectionFrames;
    std::vector<uint8_t> buf(kMaxFrameLength);
    uint32_t dataEnd = 0, overlaps = 0;
    ForEachCardSection(card_, [&](int fd, const SectionInfoHead &s, uint32_t first) {
        uint32_t n = 0;
        SectionFrameWalk walk;
        walk.onFrame = [&](const uint8_t *, uint32_t) { ++n; };
        WalkSectionFrames(fd, s, first, buf.data(), static_cast<uint32_t>(buf.size()), walk);
        sectionFrames.push_back(n);
        // Frames are read from behind the header's place on.
        overlaps += s.m_u32SectionOffset + kRecordFileHeaderSize < dataEnd;
        dataEnd = s.m_u32SectionOffset + s.m_u32SectionSize;
    });
    int fd = AVFileOpen((card_ + kIndexFileName).c_str(), kAVFileModeReadWrite);
    RecoveredViewRemove();
    EXPECT_LT(fd, 0) << "the view opened the index for writing";
    ASSERT_EQ(sectionFrames.size(), 1 + file.remnants.size());
    EXPECT_EQ(sectionFrames[0], 75u);
    uint64_t remnantFrames = 0;
    for (size_t i = 1; i < sectionFrames.size(); ++i) remnantFrames += sectionFrames[i];
    EXPECT_EQ(remnantFrames, file.remnantFrames);
    EXPECT_EQ(overlaps, 0u);
    EXPECT_EQ(Index(card_), index) << "the view wrote to the card";
}

// A file the writer has not reached since the header was written holds an
// earlier use's recording: shown as a remnant, never written into the index.
TEST_F(CardRecoveryTest, FilesTheWriterHasNotReachedHoldOnlyRemnants) {
    Record(card_, kStart, 3);
    std::string other = NewCard("other");
    Record(other, kStart - 86400, 4);
    WriteFileAt(MediaFilePath(card_, 1), 0, ReadFileAt(MediaFilePath(other, 0), 0, 200000));
    const std::string index = Index(card_);
    CardRecovery recovery;
    EXPECT_EQ(RecoverToOutput(&recovery), index);
    EXPECT_TRUE(recovery.changes.empty()) << FormatIndexProblem(recovery.changes.front());
    EXPECT_NE(recovery.files[1].record.m_u32HeadFlag, kFileInfoHeadFlag);
    ASSERT_EQ(recovery.files[1].remnants.size(), 1u);
    EXPECT_EQ(recovery.files[1].remnants[0].m_u32StartTime, kStart - 86400);
}

// Bytes no frame can be read from inside the indexed data: the section goes
// on behind them at its next key frame instead of ending there.
TEST_F(CardRecoveryTest, UnreadableBytesInsideASectionDoNotEndIt) {
    Record(card_, kStart, 6);
    const FileInfoHead file = *GetFileInfoHead();
    WriteFileAt(MediaFilePath(card_, 0), 30000, std::string(4000, '\x33'));
    CardRecovery recovery;
    std::string why;
    ASSERT_EQ(RecoverCard(card_, &recovery, &why), 0);
    const RecoveredFile &rebuilt = recovery.files[0];
    ASSERT_EQ(rebuilt.sections.size(), 1u);
    EXPECT_EQ(rebuilt.record.m_u32DataSize, file.m_u32DataSize);
    EXPECT_EQ(rebuilt.sections[0].m_u32EndTime, kStart + 5);
    EXPECT_GT(rebuilt.unreadableBytes, 0u);
    EXPECT_TRUE(rebuilt.remnants.empty());
    // The key frames behind the damage keep their entries.
    ASSERT_EQ(rebuilt.keyFrames.size(), file.m_u32KeyFrameSum);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(rebuilt.keyFrames.data()),
                          rebuilt.keyFrames.size() * kKeyFrameEntrySize),
              ReadFileAt(MediaFilePath(card_, 0), kKeyFrameTableOffset,
                         file.m_u32KeyFrameSum * kKeyFrameEntrySize));
}

// The same at the very start of a section, its record file header and
// first key frame unreadable: the section keeps its place and its data.
TEST_F(CardRecoveryTest, UnreadableSectionStartKeepsTheSection) {
    Record(card_, kStart, 3);
    Record(card_, kStart + 60, 4);
    const SectionInfoHead second = *GetSectionInfoHead();
    const FileInfoHead file = *GetFileInfoHead();
    WriteFileAt(MediaFilePath(card_, 0), second.m_u32SectionOffset, std::string(3000, '\x33'));
    CardRecovery recovery;
    std::string why;
    ASSERT_EQ(RecoverCard(card_, &recovery, &why), 0);
    const RecoveredFile &rebuilt = recovery.files[0];
    ASSERT_EQ(rebuilt.sections.size(), 2u);
    EXPECT_EQ(rebuilt.sections[1].m_u32SectionOffset, second.m_u32SectionOffset);
    EXPECT_EQ(rebuilt.sections[1].m_u32SectionSize, second.m_u32SectionSize);
    EXPECT_EQ(rebuilt.sections[1].m_u32StartTime, kStart + 60);
    EXPECT_EQ(rebuilt.sections[1].m_u32EndTime, kStart + 63);
    EXPECT_EQ(rebuilt.sections[1].m_u32KeyFrameSum, second.m_u32KeyFrameSum - 1);
    EXPECT_EQ(rebuilt.record.m_u32DataSize, file.m_u32DataSize);
    EXPECT_TRUE(rebuilt.remnants.empty());
}

// Random bytes anywhere in the stream: the scan ends, and what it rebuilds
// never takes a byte into two sections or more frames than were recorded.
TEST_F(CardRecoveryTest, RandomStreamDamageNeverOverlapsSections) {
    RecordThreeSections();
    const uint32_t dataSize = GetFileInfoHead()->m_u32DataSize;
    const std::string media = MediaFilePath(card_, 0);
    const std::string data = ReadFileAt(media, 0, dataSize);
    uint32_t seed = 12345;
    auto next = [&seed](uint32_t below) {
        seed = seed * 1103515245 + 12345;
        return (seed >> 8) % below;
    };
    for (int round = 0; round < 20; ++round) {
        WriteFileAt(media, 0, data);
        for (int patch = 0; patch < 3; ++patch) {
            std::string junk(1 + next(2000), '\0');
            for (char &c : junk) c = static_cast<char>(next(256));
            WriteFileAt(media, next(dataSize), junk);
        }
        CardRecovery recovery;
        std::string why;
        ASSERT_EQ(RecoverCard(card_, &recovery, &why), 0) << why;
        const RecoveredFile &f = recovery.files[0];
        std::vector<SectionInfoHead> all = f.sections;
        all.insert(all.end(), f.remnants.begin(), f.remnants.end());
        uint32_t end = 0;
        for (const SectionInfoHead &s : all) {
            EXPECT_GE(s.m_u32SectionOffset, end) << "round " << round;
            end = s.m_u32SectionOffset + s.m_u32SectionSize;
        }
        EXPECT_LE(f.frames + f.remnantFrames, 4u * 25 + 3 * 50 + 3 * 25) << "round " << round;
    }
}

// Events survive where their records are whole; a damaged slot is cleared.
TEST_F(CardRecoveryTest, EventSlotsAreKeptOrClearedAndAMissingFileIsNamed) {
    RecordThreeSections();
    std::string events = card_ + kEventFileName;
    AlarmEventInfo info;
    AV_AlarmEventFileInfoInit(&info, 0, kStart + 1, 1);
    AV_AlarmEventFileInfoNextEvent(&info);
    AlarmEventEntry entry;
    AV_AlarmEventEntryInit(&info, &entry, kStart + 1, 1);
    entry.m_u16EventNo = 0;
    WriteFileAt(events, AlarmEventInfoPosition(0), RecordBytes(info));
    WriteFileAt(events, AlarmEventEntryPosition(0, 0), RecordBytes(entry));
    AlarmEventInfo bad = info;
    bad.m_u32AlarmFileNo = 7;
    WriteFileAt(events, AlarmEventInfoPosition(1), RecordBytes(bad));
    CardRecovery recovery;
    RecoverToOutput(&recovery);
    EXPECT_EQ(recovery.eventSlots[0].m_u32AlarmEventSum, 1u);
    ASSERT_EQ(recovery.events[0].size(), 1u);
    EXPECT_TRUE(recovery.eventSlotDamaged[1]);
    std::string out = tmp_.File("out1/") + kEventFileName;
    EXPECT_EQ(ReadFileAt(out, AlarmEventEntryPosition(0, 0), sizeof entry), RecordBytes(entry));
    EXPECT_EQ(ReadFileAt(out, AlarmEventInfoPosition(1), sizeof bad), std::string(sizeof bad, '\0'));

    ASSERT_EQ(unlink(events.c_str()), 0);
    std::string why;
    ASSERT_EQ(RecoverCard(card_, &recovery, &why), 0);
    EXPECT_TRUE(Mentions(recovery.notes, "event list is gone"));
}

// The check reports exactly the event slots the recovery clears, with the
// same reason: a slot counting no event, naming another file, counting more
// than the list holds, or listing a foreign entry.
TEST_F(CardRecoveryTest, CheckAndRecoveryJudgeEventSlotsAlike) {
    RecordThreeSections();
    struct Case {
        const char *what;
        std::function<void(AlarmEventInfo *, AlarmEventEntry *)> damage;
        bool damaged;
    };
    const Case cases[] = {
        {"whole", [](AlarmEventInfo *, AlarmEventEntry *) {}, false},
        {"no event", [](AlarmEventInfo *i, AlarmEventEntry *) { i->m_u32AlarmEventSum = 0; }, true},
        {"other file", [](AlarmEventInfo *i, AlarmEventEntry *) { i->m_u32AlarmFileNo = 0; }, true},
        {"too many", [](AlarmEventInfo *i, AlarmEventEntry *) { i->m_u32AlarmEventSum = 1025; }, true},
        {"foreign entry", [](AlarmEventInfo *, AlarmEventEntry *e) { e->m_u16FileNo = 0; }, true},
    };
    std::string events = card_ + kEventFileName;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        AlarmEventInfo info;
        AV_AlarmEventFileInfoInit(&info, 1, kStart + 1, 1);
        AlarmEventEntry entry;
        AV_AlarmEventEntryInit(&info, &entry, kStart + 1, 1);
        AV_AlarmEventFileInfoNextEvent(&info);
        c.damage(&info, &entry);
        WriteFileAt(events, AlarmEventInfoPosition(1), RecordBytes(info));
        WriteFileAt(events, AlarmEventEntryPosition(1, 0), RecordBytes(entry));
        std::vector<IndexProblem> problems;
        CheckCardIndex(card_, &problems);
        CardRecovery recovery;
        std::string why;
        ASSERT_EQ(RecoverCard(card_, &recovery, &why), 0) << why;
        EXPECT_EQ(recovery.eventSlotDamaged[1], c.damaged);
        const IndexProblem *reported = nullptr;
        for (const IndexProblem &p : problems) {
            if (p.fileNo == 1 && p.sectionNo == 0) reported = &p;
        }
        ASSERT_EQ(reported != nullptr, c.damaged);
        if (reported != nullptr) {
            EXPECT_TRUE(Mentions(recovery.changes, reported->text)) << reported->text;
        }
    }
}

// Error paths: no media files; a backup and an in-place write that cannot
// be made leave the card as it was.
TEST_F(CardRecoveryTest, ErrorPathsLeaveTheCardAlone) {
    CardRecovery recovery;
    std::string why;
    EXPECT_EQ(RecoverCard(tmp_.File("nothing/"), &recovery, &why), -1);
    EXPECT_NE(why.find("no media files"), std::string::npos) << why;

    Record(card_, kStart, 3);
    WriteFileAt(card_ + kIndexFileName, 0, std::string(sizeof(RecordConfigInfo), '\0'));
    ASSERT_EQ(RecoverCard(card_, &recovery, &why), 0);
    std::vector<CardFilePatches> patches = RecoveryPatches(recovery, false);
    std::string backup = tmp_.File("backup");
    ASSERT_EQ(RecoveryBackup(card_, backup, &why), 0) << why;
    EXPECT_EQ(RecoveryBackup(card_, backup, &why), -1) << "an existing backup was overwritten";
    EXPECT_EQ(ReadFileAt(backup + "/" + kIndexFileName, 0, sizeof(RecordConfigInfo)),
              std::string(sizeof(RecordConfigInfo), '\0'));

    const std::string damaged = ReadFileAt(card_ + kIndexFileName, 0, 0x1000);
    ASSERT_EQ(truncate((card_ + kIndexFileName).c_str(), 0x1000), 0);
    EXPECT_EQ(RecoveryWriteInPlace(card_, patches, &why), -1);
    EXPECT_NE(why.find("cannot be grown"), std::string::npos) << why;
    EXPECT_EQ(ReadWholeFile(card_ + kIndexFileName), damaged);
}

}  // namespace
