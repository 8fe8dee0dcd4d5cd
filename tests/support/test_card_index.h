// A crafted card index for the tools tests.
#pragma once

#include <cstdint>
#include <string>

#include "avrecord_lib/index_records.h"
#include "common/platform_paths.h"
#include "support/card_fixture.h"
#include "support/test_support.h"

// A crafted index000.bin / event000.bin in the card directory.
class CraftedIndex {
public:
    explicit CraftedIndex(const ScopedRoot &root) : CraftedIndex(root.Under(kCardMountPoint)) {}
    explicit CraftedIndex(const std::string &dir) : dir_(dir) { MakeDirectories(dir_); }

    void Header(uint32_t fileSum, uint32_t flag = kRecordConfigHeadFlag) {
        RecordConfigInfo info{};
        info.m_u32HeadFlag = flag;
        info.m_u32Version = kRecordConfigVersion;
        info.m_u32RecordFileSum = fileSum;
        info.m_u32CheckCode = kRecordCheckCode;
        WriteFileAt(Index(), 0, RecordBytes(info));
    }
    void File(uint32_t n, uint32_t start, uint32_t end, uint32_t sections,
              uint32_t flag = kFileInfoHeadFlag) {
        FileInfoHead file{};
        file.m_u32HeadFlag = flag;
        file.m_u32FileNo = n;
        file.m_u32StartTime = start;
        file.m_u32EndTime = end;
        file.m_u32RecordSectionSum = sections;
        WriteFileAt(Index(), FileInfoHeadPosition(n), RecordBytes(file));
    }
    void Section(uint32_t n, uint16_t s, uint32_t start, uint32_t end, uint32_t flag = kSectionInfoHeadFlag) {
        SectionInfoHead section{};
        section.m_u32HeadFlag = flag;
        section.m_u32StartTime = start;
        section.m_u32EndTime = end;
        section.m_u32FileNo = static_cast<uint16_t>(n);
        section.m_u16SectionNo = s;
        section.m_u32SectionSize = 1000 + s;
        section.m_u32VideoFrameSum = 25 * (end - start);
        section.m_u8FrameRate = 25;
        WriteFileAt(Index(), SectionInfoHeadPosition(n, s), RecordBytes(section));
    }
    void EventSlot(uint32_t n, uint32_t start, uint32_t sum) {
        AlarmEventInfo info{};
        info.m_u32HeadFlag = kAlarmEventInfoFlag;
        info.m_u32AlarmFileNo = n;
        info.m_u32StartTime = start;
        info.m_u32AlarmEventSum = sum;
        WriteFileAt(Events(), AlarmEventInfoPosition(n), RecordBytes(info));
    }
    void Event(uint32_t n, uint32_t i, uint32_t start, uint32_t end, uint8_t type,
               uint32_t flag = kAlarmEventEntryFlag) {
        AlarmEventEntry entry{};
        entry.m_u32HeadFlag = flag;
        entry.m_u32StartTime = start;
        entry.m_u32EndTime = end;
        entry.m_u32DataSize = 500;
        entry.m_u32FrameSum = 250;
        entry.m_u8AlarmType = type;
        entry.m_u8FrameRate = 15;
        WriteFileAt(Events(), AlarmEventEntryPosition(n, i), RecordBytes(entry));
    }
    std::string Index() const { return dir_ + kIndexFileName; }
    std::string Events() const { return dir_ + kEventFileName; }

private:
    std::string dir_;
};
