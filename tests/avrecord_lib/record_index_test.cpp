#include "avrecord_lib/record_index.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "support/card_fixture.h"
#include "support/test_support.h"

namespace {

class RecordIndexTest : public testing::Test {
protected:
    void SetUp() override {
        card_ = dir_.path() + "/";
        MakeSparseCard(card_, 1);
        index_ = card_ + kIndexFileName;
        event_ = card_ + kEventFileName;
    }
    int Open(const std::string &path) { return AVFileOpen(path.c_str(), kAVFileModeReadWrite); }
    FileInfoHead FileRecord(uint32_t fileNo, uint32_t sections) {
        AV_RecordConfigInfoInit(&info_, 0, 8);
        info_.m_u32FileInfoHeadNo = fileNo;
        FileInfoHead file;
        AV_RecordFileInfoHeadInit(&info_, &file, 1000 + fileNo, 1);
        file.m_u32RecordSectionSum = sections;
        return file;
    }

    TempDir dir_;
    std::string card_, index_, event_;
    RecordConfigInfo info_;
};

// Every record goes to its fixed place and reads back from there.
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
    KeyFrameEntry key;
    AV_RecordKeyFrameEntryInit(&key, 5, 6, 7, 2);
    const std::string media = MediaFilePath(card_, 0);

    struct Case {
        const char *what;
        const std::string &path;
        uint64_t offset;
        std::string bytes;
        std::function<int(int)> write;
    };
    const std::vector<Case> cases = {
        {"current file record (file 3)", index_, 0x490, RecordBytes(file),
         [&](int fd) { return AV_RecordFileInfoHeadWrite(fd, &info_, &file); }},
        {"first section of file 3", index_, 0x2C040, RecordBytes(section),
         [&](int fd) { return AV_RecordSectionInfoHeadWrite(fd, &file, &section); }},
        {"event slot of file 3", event_, 0x300, RecordBytes(slot),
         [&](int fd) { return AV_AlarmEventFileInfoWrite(fd, 3, &slot); }},
        {"second event entry of file 3", event_, 48 * (1 + 1) + 0x20000 * 3 + 0xFFFD0, RecordBytes(entry),
         [&](int fd) { return AV_AlarmEventEntryWrite(fd, &slot, &entry); }},
        {"key-frame entry 4", media, 0xFC00000 + 80, RecordBytes(key),
         [&](int fd) { return AV_RecordKeyFrameEntryWrite(fd, KeyFrameEntryOffset(4), &key); }},
    };
    for (const Case &c : cases) {
        int fd = Open(c.path);
        EXPECT_EQ(c.write(fd), 0) << c.what;
        AVFileClose(fd);
        EXPECT_EQ(ReadFileAt(c.path, c.offset, c.bytes.size()), c.bytes) << c.what;
    }

    int fd = Open(index_);
    FileInfoHead back;
    ASSERT_EQ(AV_RecordFileInfoHeadAccecsFileNoRead(fd, 3, &back), 0);
    SectionInfoHead sections[kMaxSectionNo];
    ASSERT_EQ(AV_RecordSectionInfoHeadRead(fd, &back, sections), 0);
    EXPECT_EQ(RecordBytes(sections[0]), RecordBytes(section));
    back.m_u32RecordSectionSum = kMaxSectionNo + 1;  // never written: refused
    EXPECT_EQ(AV_RecordSectionInfoHeadRead(fd, &back, sections), -1);
    AVFileClose(fd);
}

TEST_F(RecordIndexTest, HeaderCheckAndClear) {
    EXPECT_EQ(AV_RecordIndexFileCheck(index_.c_str()), -1);  // all zero
    int fd = Open(index_);
    AV_RecordConfigInfoInit(&info_, 0, 4);
    ASSERT_EQ(AV_RecordConfigInfoWrite(fd, &info_), 236);
    for (uint32_t n = 0; n < 5; ++n) {
        FileInfoHead file = FileRecord(n, 1);
        AV_RecordFileInfoHeadAccecsFileNoWrite(fd, n, &file);
    }
    AVFileClose(fd);
    EXPECT_EQ(AV_RecordIndexFileCheck(index_.c_str()), 0);

    uint32_t sum = 0;
    ASSERT_EQ(AV_RecordIndexFileClear(index_.c_str(), &sum), 0);
    EXPECT_EQ(sum, 4u);
    EXPECT_EQ(ReadFileAt(index_, 0, 0x400 + 48 * 4), std::string(0x400 + 48 * 4, '\0'));
    EXPECT_EQ(ReadFileAt(index_, FileInfoHeadPosition(4), 4), "RFHF");  // beyond the sum: kept
    EXPECT_EQ(AV_RecordIndexFileClear(index_.c_str(), &sum), -1);       // no header any more

    RecordConfigInfo header;
    AV_RecordConfigInfoInit(&header, 0, 1);
    header.m_u32CheckCode = 0;  // written, never checked
    EXPECT_EQ(AV_RecordConfigInfoCheck(&header), 0);
    header.m_u32Version = 2;
    EXPECT_EQ(AV_RecordConfigInfoCheck(&header), -1);
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
    EXPECT_EQ(entries[1022].m_u16EventNo, 1022);
    EXPECT_EQ(entries.back().m_u32HeadFlag, 0x5A5A5A5Au);  // nothing read past 1023
    AVFileClose(fd);
}

// Error paths: slots without events are refused.
TEST_F(RecordIndexTest, RefusesSlotsWithoutEvents) {
    int fd = Open(event_);
    AlarmEventInfo slot = {};
    AV_AlarmEventFileInfoInit(&slot, 0, 100, 1);
    AlarmEventEntry entry = {};
    EXPECT_EQ(AV_AlarmEventFileInfoWrite(fd, 0, &slot), -1);
    EXPECT_EQ(AV_AlarmEventEntryWrite(fd, &slot, &entry), -1);
    EXPECT_EQ(AV_AlarmEventEntryListRead(fd, &slot, &entry), -1);
    EXPECT_EQ(AV_AlarmEventFileInfoWriteNoCheck(fd, 0, &slot), 0);
    AVFileClose(fd);
}

}  // namespace
