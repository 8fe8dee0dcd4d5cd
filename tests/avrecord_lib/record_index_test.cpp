#include "avrecord_lib/record_index.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "support/card_fixture.h"
#include "support/faulty_file_io.h"
#include "support/test_support.h"

namespace {

class RecordIndexTest : public testing::Test {
protected:
    void SetUp() override {
        card_ = dir_.path() + "/";
        MakeSparseCard(card_, 0);
        index_ = card_ + kIndexFileName;
        event_ = card_ + kEventFileName;
    }
    int Open(const std::string &path) { return AVFileOpen(path.c_str(), kAVFileModeReadWrite); }
    void WriteHeader(uint32_t fileSum) {
        RecordConfigInfo info;
        AV_RecordConfigInfoInit(&info, 7, fileSum);
        int fd = Open(index_);
        ASSERT_EQ(AV_RecordConfigInfoWrite(fd, &info), 236);
        AVFileClose(fd);
    }
    FileInfoHead FileRecord(uint32_t fileNo, uint32_t sections) {
        RecordConfigInfo info;
        AV_RecordConfigInfoInit(&info, 0, 8);
        info.m_u32FileInfoHeadNo = fileNo;
        FileInfoHead file;
        AV_RecordFileInfoHeadInit(&info, &file, 1000 + fileNo, 1);
        file.m_u32RecordSectionSum = sections;
        return file;
    }

    TempDir dir_;
    std::string card_, index_, event_;
};

// Every record goes to its fixed place, whichever operation writes it.
TEST_F(RecordIndexTest, RecordsLandAtTheirOffsets) {
    FileInfoHead file = FileRecord(3, 1);
    SectionInfoHead section;
    AV_RecordSectionInfoHeadInit(&file, &section, 1000, 1, 1);
    AlarmEventInfo slot = {};
    AV_AlarmEventFileInfoInit(&slot, 3, 1000, 2);
    AV_AlarmEventFileInfoNextEvent(&slot);
    AV_AlarmEventFileInfoNextEvent(&slot);
    AlarmEventEntry entry;
    AV_AlarmEventEntryInit(&slot, &entry, 1000, 2);
    RecordConfigInfo info;
    AV_RecordConfigInfoInit(&info, 0, 8);
    info.m_u32FileInfoHeadNo = 5;
    FileInfoHead current = FileRecord(5, 1);

    struct Case {
        const char *what;
        const std::string *path;
        uint64_t offset;
        std::string bytes;
        std::function<int(int)> write;
    };
    const std::vector<Case> cases = {
        {"file record of file 3", &index_, 0x490, RecordBytes(file),
         [&](int fd) { return AV_RecordFileInfoHeadAccecsFileNoWrite(fd, 3, &file); }},
        {"current file record", &index_, 0x400 + 48 * 5, RecordBytes(current),
         [&](int fd) { return AV_RecordFileInfoHeadWrite(fd, &info, &current); }},
        {"first section of file 3", &index_, 0x2C040, RecordBytes(section),
         [&](int fd) { return AV_RecordSectionInfoHeadWrite(fd, &file, &section); }},
        {"event slot of file 3", &event_, 0x300, RecordBytes(slot),
         [&](int fd) { return AV_AlarmEventFileInfoWrite(fd, 3, &slot); }},
        {"second event entry of file 3", &event_, 0x100000 + 3 * 0x20000 + 48, RecordBytes(entry),
         [&](int fd) { return AV_AlarmEventEntryWrite(fd, &slot, &entry); }},
    };
    for (const Case &c : cases) {
        int fd = Open(*c.path);
        EXPECT_EQ(c.write(fd), 0) << c.what;
        AVFileClose(fd);
        EXPECT_EQ(ReadFileAt(*c.path, c.offset, c.bytes.size()), c.bytes) << c.what;
    }
    // The entry-position formula of the writer gives the same place.
    EXPECT_EQ(AlarmEventEntryPosition(3, 1), 48u * (1 + 1) + 0x20000u * 3 + 0xFFFD0u);
}

TEST_F(RecordIndexTest, RecordsReadBackAsWritten) {
    int fd = Open(index_);
    FileInfoHead file = FileRecord(2, 3);
    ASSERT_EQ(AV_RecordFileInfoHeadAccecsFileNoWrite(fd, 2, &file), 0);
    SectionInfoHead written[3];
    for (uint16_t s = 0; s < 3; ++s) {
        FileInfoHead numbering = file;
        numbering.m_u32RecordSectionSum = s + 1u;
        AV_RecordSectionInfoHeadInit(&numbering, &written[s], 2000 + s, 1, 1);
        ASSERT_EQ(AV_RecordSectionInfoHeadWrite(fd, &file, &written[s]), 0);
    }
    RecordConfigInfo info = {};
    info.m_u32FileInfoHeadNo = 2;
    FileInfoHead back;
    ASSERT_EQ(AV_RecordFileInfoHeadRead(fd, &info, &back), 0);
    EXPECT_EQ(RecordBytes(back), RecordBytes(file));
    SectionInfoHead sections[kMaxSectionNo];
    ASSERT_EQ(AV_RecordSectionInfoHeadRead(fd, &back, sections), 0);
    for (int s = 0; s < 3; ++s) EXPECT_EQ(RecordBytes(sections[s]), RecordBytes(written[s]));

    KeyFrameEntry key, keyBack;
    AV_RecordKeyFrameEntryInit(&key, 5, 6, 7, 2);
    std::string media = card_ + "media";
    int mediaFd = Open(media);
    ASSERT_EQ(AV_RecordKeyFrameEntryWrite(mediaFd, KeyFrameEntryOffset(4), &key), 0);
    ASSERT_EQ(AV_RecordKeyFrameEntryRead(mediaFd, KeyFrameEntryOffset(4), &keyBack), 0);
    EXPECT_EQ(ReadFileAt(media, 0xFC00000 + 80, 4), "KFHF");
    EXPECT_EQ(RecordBytes(keyBack), RecordBytes(key));
    AVFileClose(mediaFd);
    AVFileClose(fd);
}

TEST_F(RecordIndexTest, HeaderCheckAndFileCheck) {
    EXPECT_EQ(AV_RecordIndexFileCheck(index_.c_str()), -1);  // all zero
    WriteHeader(10);
    EXPECT_EQ(AV_RecordIndexFileCheck(index_.c_str()), 0);
    EXPECT_EQ(ReadFileAt(index_, 0, 8), std::string("SIHF\x01\0\0\0", 8));

    RecordConfigInfo info;
    AV_RecordConfigInfoInit(&info, 0, 1);
    info.m_u32CheckCode = 0;  // written, never checked
    EXPECT_EQ(AV_RecordConfigInfoCheck(&info), 0);
    info.m_u32Version = 2;
    EXPECT_EQ(AV_RecordConfigInfoCheck(&info), -1);
    info.m_u32Version = 1;
    info.m_u32HeadFlag = kFileInfoHeadFlag;
    EXPECT_EQ(AV_RecordConfigInfoCheck(&info), -1);
    EXPECT_EQ(AV_RecordConfigInfoCheck(nullptr), -1);
    EXPECT_EQ(AV_RecordIndexFileCheck((card_ + "missing.bin").c_str()), -1);
}

TEST_F(RecordIndexTest, IndexClearZeroesFileRecordsThenHeader) {
    WriteHeader(4);
    int fd = Open(index_);
    for (uint32_t n = 0; n < 5; ++n) {
        FileInfoHead file = FileRecord(n, 1);
        AV_RecordFileInfoHeadAccecsFileNoWrite(fd, n, &file);
    }
    AVFileClose(fd);
    uint32_t sum = 0;
    ASSERT_EQ(AV_RecordIndexFileClear(index_.c_str(), &sum), 0);
    EXPECT_EQ(sum, 4u);
    EXPECT_EQ(ReadFileAt(index_, 0, 0x400 + 48 * 4), std::string(0x400 + 48 * 4, '\0'));
    EXPECT_EQ(ReadFileAt(index_, FileInfoHeadPosition(4), 4), "RFHF");  // beyond the sum: kept

    sum = 99;
    EXPECT_EQ(AV_RecordIndexFileClear(index_.c_str(), &sum), -1);  // the header is gone now
    EXPECT_EQ(sum, 99u);
    EXPECT_EQ(ReadFileAt(index_, FileInfoHeadPosition(4), 4), "RFHF");
}

TEST_F(RecordIndexTest, EventListOf1024ReadsBackAs1023) {
    int fd = Open(event_);
    AlarmEventInfo slot = {};
    AV_AlarmEventFileInfoInit(&slot, 1, 100, 1);
    for (int i = 0; i < 1030; ++i) {
        AlarmEventEntry entry;
        AV_AlarmEventEntryInit(&slot, &entry, 100 + i, 1);
        AV_AlarmEventFileInfoNextEvent(&slot);
        ASSERT_EQ(AV_AlarmEventEntryWrite(fd, &slot, &entry), 0);
    }
    EXPECT_EQ(slot.m_u32AlarmEventSum, 1024u);
    std::vector<AlarmEventEntry> entries(kMaxAlarmEventListRead + 1);
    memset(&entries.back(), 0x5A, sizeof(AlarmEventEntry));
    ASSERT_EQ(AV_AlarmEventEntryListRead(fd, &slot, entries.data()), 0);
    EXPECT_EQ(slot.m_u32AlarmEventSum, 1023u);
    EXPECT_EQ(entries[0].m_u32StartTime, 100u);
    EXPECT_EQ(entries[1022].m_u16EventNo, 1022);
    EXPECT_EQ(entries.back().m_u32HeadFlag, 0x5A5A5A5Au);  // nothing read past 1023
    AVFileClose(fd);
}

// Error paths: empty slots and absurd counts are refused, and every short
// transfer is a failure.
TEST_F(RecordIndexTest, RefusesEmptySlotsAndShortTransfers) {
    int fd = Open(event_);
    AlarmEventInfo slot = {};
    AV_AlarmEventFileInfoInit(&slot, 0, 100, 1);
    AlarmEventEntry entry = {};
    AlarmEventEntry entries[1];
    EXPECT_EQ(AV_AlarmEventFileInfoWrite(fd, 0, &slot), -1);
    EXPECT_EQ(AV_AlarmEventEntryWrite(fd, &slot, &entry), -1);
    EXPECT_EQ(AV_AlarmEventEntryListRead(fd, &slot, entries), -1);
    EXPECT_EQ(AV_AlarmEventFileInfoWriteNoCheck(fd, 0, &slot), 0);
    AVFileClose(fd);

    fd = Open(index_);
    FileInfoHead corrupt = FileRecord(0, kMaxSectionNo + 1);
    SectionInfoHead sections[kMaxSectionNo];
    EXPECT_EQ(AV_RecordSectionInfoHeadRead(fd, &corrupt, sections), -1);
    EXPECT_EQ(AV_RecordFileInfoHeadAccecsFileNoRead(-1, 0, &corrupt), -1);
    EXPECT_EQ(AV_RecordFileInfoHeadAccecsFileNoWrite(fd, 0, nullptr), -1);
    AVFileClose(fd);

    std::string small = card_ + "small.bin";
    WriteWholeFile(small, std::string(100, 'x'));
    fd = Open(small);
    RecordConfigInfo info;
    EXPECT_EQ(AV_RecordConfigInfoRead(fd, &info), -1);
    AVFileClose(fd);

    FaultyFileIo faults;
    faults.ShortWriteNth(1, 10);
    fd = Open(index_);
    AV_RecordConfigInfoInit(&info, 0, 1);
    EXPECT_EQ(AV_RecordConfigInfoWrite(fd, &info), -1);
    AVFileClose(fd);
}

}  // namespace
