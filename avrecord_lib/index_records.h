// The on-card index records: the index header, one record per media file,
// one per recording section, key-frame entries inside the media files, and
// the alarm-event slots and entries of event000.bin. Little-endian, copied
// to and from the card as they stand.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/byte_order.h"
#include "common/card_layout.h"

// Inside the card's files (their names and sizes: common/card_layout.h).
inline constexpr uint32_t kMediaFileFullSize = 0xF900000;     // 249 MiB: a file this full takes no new section
inline constexpr uint32_t kKeyFrameTableOffset = 0xFC00000;   // 252 MiB: key-frame table inside a media file
inline constexpr const char kSectionNameFormat[] = "hi%06d_%06d.mp4";  // shown to clients
inline constexpr const char kEventNameFormat[] = "he%06d_%06d.mp4";    // shown to clients

// index000.bin layout beyond the card layout's.
inline constexpr uint32_t kSectionSlotSize = 64;
inline constexpr uint32_t kMaxSectionNo = 251;

// event000.bin layout beyond the card layout's.
inline constexpr uint32_t kAlarmEventInfoSlotSize = 256;
inline constexpr uint32_t kMaxAlarmEventSum = 1024;

// Magic words.
inline constexpr uint32_t kRecordConfigHeadFlag = 0x46484953;  // "SIHF"
inline constexpr uint32_t kRecordConfigVersion = 1;
inline constexpr uint32_t kRecordCheckCode = 0x55AABB55;
inline constexpr uint32_t kFileInfoHeadFlag = 0x46484652;      // "RFHF"
inline constexpr uint32_t kSectionInfoHeadFlag = 0x46484952;   // "RIHF"
inline constexpr uint32_t kKeyFrameEntryFlag = 0x4648464B;     // "KFHF"
inline constexpr uint32_t kAlarmEventInfoFlag = 0x464D4541;    // "AEMF"
inline constexpr uint32_t kAlarmEventEntryFlag = 0x46454441;   // "ADEF"

// Index header, 236 bytes at offset 0 of index000.bin.
struct RecordConfigInfo {
    uint32_t m_u32HeadFlag;            // "SIHF"
    uint32_t m_u32Version;             // 1
    uint32_t m_u32RecordConfigValue;   // stored, never interpreted
    uint32_t m_u32RecordSpaceSize;     // StoreFileNum << 28, modulo 2^32
    uint32_t m_u32Reserved0;           // 0
    uint32_t m_u32RecordFileSum;       // StoreFileNum
    uint32_t m_u32RecordFileUsed;      // media files taken into use
    uint32_t m_u32FileInfoHeadNo;      // current media file
    uint32_t m_u32CheckCode;           // 0x55AABB55
    uint8_t m_u8Reserved[200];         // zero
};
static_assert(sizeof(RecordConfigInfo) == 236);
static_assert(offsetof(RecordConfigInfo, m_u32RecordSpaceSize) == 0x0C);
static_assert(offsetof(RecordConfigInfo, m_u32RecordFileSum) == 0x14);
static_assert(offsetof(RecordConfigInfo, m_u32RecordFileUsed) == 0x18);
static_assert(offsetof(RecordConfigInfo, m_u32FileInfoHeadNo) == 0x1C);
static_assert(offsetof(RecordConfigInfo, m_u32CheckCode) == 0x20);
static_assert(offsetof(RecordConfigInfo, m_u8Reserved) == 0x24);

// One record per media file, 48 bytes at 0x400 + 48 * n.
struct FileInfoHead {
    uint32_t m_u32HeadFlag;            // "RFHF"; anything else: no recording
    uint32_t m_u32FileNo;              // media file number
    uint32_t m_u32StartTime;           // earliest section start
    uint32_t m_u32EndTime;             // latest frame
    uint32_t m_u32DataSize;            // PS bytes written; next write offset
    uint32_t m_u32RecordType;          // OR of the sections' record types
    uint32_t m_u32RecordSectionSum;    // sections in the file, from 1
    uint32_t m_u32KeyFrameSum;         // entries in the file's key-frame table
    uint8_t m_u8Reserved[16];          // zero
};
static_assert(sizeof(FileInfoHead) == kFileInfoHeadSize);
static_assert(offsetof(FileInfoHead, m_u32DataSize) == 0x10);
static_assert(offsetof(FileInfoHead, m_u32RecordSectionSum) == 0x18);
static_assert(offsetof(FileInfoHead, m_u32KeyFrameSum) == 0x1C);
static_assert(offsetof(FileInfoHead, m_u8Reserved) == 0x20);

// One record per recording section, 64 bytes in slot s (1-based) of the
// media file's section block.
struct SectionInfoHead {
    uint32_t m_u32HeadFlag;            // "RIHF"
    uint32_t m_u32StartTime;           // section start
    uint32_t m_u32EndTime;             // last frame; 0 until the first frame
    uint16_t m_u32FileNo;              // media file number (low 16 bits)
    uint16_t m_u16SectionNo;           // section number, selects the slot
    uint32_t m_u32SectionOffset;       // first PS byte in the media file
    uint32_t m_u32SectionSize;         // PS bytes of the section
    uint32_t m_u32VideoFrameSum;       // video frames written
    uint32_t m_u32KeyFrameSum;         // key-frame entries of the section
    uint32_t m_u32KeyFrameEntrySize;   // 20
    uint16_t m_u16Width;               // as recorded (rotation applied)
    uint16_t m_u16Height;              // as recorded
    uint8_t m_u8FrameRate;             // frames per second
    uint8_t m_u8MediaFlag;             // 1
    uint8_t m_u8VideoParam;            // further byte of the encoding settings
    uint8_t m_u8AudioCodeType;         // kSectionAudioG711U, ...G711A or ...Aac
    uint8_t m_u8RecordType;            // record type given at record start
    uint8_t m_u8Reserved[19];          // zero
};
static_assert(sizeof(SectionInfoHead) == 64);
static_assert(offsetof(SectionInfoHead, m_u32FileNo) == 0x0C);
static_assert(offsetof(SectionInfoHead, m_u16SectionNo) == 0x0E);
static_assert(offsetof(SectionInfoHead, m_u32SectionOffset) == 0x10);
static_assert(offsetof(SectionInfoHead, m_u32KeyFrameEntrySize) == 0x20);
static_assert(offsetof(SectionInfoHead, m_u16Width) == 0x24);
static_assert(offsetof(SectionInfoHead, m_u8FrameRate) == 0x28);
static_assert(offsetof(SectionInfoHead, m_u8AudioCodeType) == 0x2B);
static_assert(offsetof(SectionInfoHead, m_u8RecordType) == 0x2C);
static_assert(offsetof(SectionInfoHead, m_u8Reserved) == 0x2D);

// Audio codec types of a section (m_u8AudioCodeType).
inline constexpr uint8_t kSectionAudioG711U = 0;
inline constexpr uint8_t kSectionAudioG711A = 1;
inline constexpr uint8_t kSectionAudioAac = 3;

// Key-frame entry, 20 bytes at 0xFC00000 + 20 * k of the media file. Packed:
// the 16-bit zero field sits at an odd offset.
struct __attribute__((packed)) KeyFrameEntry {
    uint32_t m_u32HeadFlag;            // "KFHF"
    uint32_t m_u32Time;                // key frame time
    uint32_t m_u32FrameSize;           // PS bytes written for the frame
    uint32_t m_u32FrameOffset;         // offset from m_u32SectionOffset
    uint8_t m_u8KeyType;               // 1 parameter set seen, 2 encoder-marked
    uint16_t m_u16Reserved;            // 0
    uint8_t m_u8Reserved;              // 0
};
static_assert(sizeof(KeyFrameEntry) == 20);
static_assert(offsetof(KeyFrameEntry, m_u32FrameOffset) == 0x0C);
static_assert(offsetof(KeyFrameEntry, m_u8KeyType) == 0x10);
static_assert(offsetof(KeyFrameEntry, m_u16Reserved) == 0x11);
inline constexpr uint32_t kKeyFrameEntrySize = sizeof(KeyFrameEntry);
inline constexpr uint32_t kMaxKeyFrameEntries = (kMediaFileSize - kKeyFrameTableOffset) / kKeyFrameEntrySize;
inline constexpr uint8_t kKeyTypeParameterSet = 1;  // key frame led by a parameter set
inline constexpr uint8_t kKeyTypeEncoderMark = 2;   // marked by the encoder's frame descriptor

// Alarm-event slot of a media file: 256 bytes at 256 * n of event000.bin,
// 36 of them defined.
struct AlarmEventInfo {
    uint32_t m_u32HeadFlag;            // "AEMF"
    uint32_t m_u32AlarmFileNo;         // media file number
    uint32_t m_u32StartTime;           // first alarm in the file
    uint32_t m_u32EndTime;             // end of the latest alarm
    uint32_t m_u32AlarmEventSum;       // entries; stops at 1024
    uint32_t m_u32Reserved0;           // not set by the builder
    uint8_t m_u8AlarmType;             // alarm type of the first alarm
    uint8_t m_u8Reserved[11];          // zero
    uint8_t m_u8Unused[220];           // not set by the builder
};
static_assert(sizeof(AlarmEventInfo) == 256);
static_assert(offsetof(AlarmEventInfo, m_u32AlarmEventSum) == 0x10);
static_assert(offsetof(AlarmEventInfo, m_u8AlarmType) == 0x18);
static_assert(offsetof(AlarmEventInfo, m_u8Unused) == 0x24);

// Alarm-event entry, 48 bytes in the media file's event list.
struct AlarmEventEntry {
    uint32_t m_u32HeadFlag;            // "ADEF"
    uint32_t m_u32StartTime;           // event start
    uint32_t m_u32EndTime;             // event end; 0 until it ends
    uint32_t m_u32DataSize;            // PS bytes recorded during the event
    uint32_t m_u32FrameSum;            // video frames recorded during the event
    uint16_t m_u16FileNo;              // media file number
    uint16_t m_u16EventNo;             // m_u32AlarmEventSum when created
    uint8_t m_u8AlarmType;             // alarm type
    uint8_t m_u8FrameRate;             // section frame rate; 0 until set
    uint8_t m_u8Reserved[22];          // zero
};
static_assert(sizeof(AlarmEventEntry) == 48);
static_assert(offsetof(AlarmEventEntry, m_u16FileNo) == 0x14);
static_assert(offsetof(AlarmEventEntry, m_u16EventNo) == 0x16);
static_assert(offsetof(AlarmEventEntry, m_u8AlarmType) == 0x18);
static_assert(offsetof(AlarmEventEntry, m_u8FrameRate) == 0x19);

// Positions.
constexpr uint32_t FileInfoHeadPosition(uint32_t fileNo) {
    return kFileInfoHeadOffset + kFileInfoHeadSize * fileNo;
}
constexpr uint32_t SectionInfoHeadPosition(uint32_t fileNo, uint32_t sectionNo) {
    return (sectionNo + ((fileNo + 8) * 256)) * kSectionSlotSize;
}
constexpr uint32_t AlarmEventInfoPosition(uint32_t fileNo) { return kAlarmEventInfoSlotSize * fileNo; }
constexpr uint32_t AlarmEventEntryPosition(uint32_t fileNo, uint32_t index) {
    return kEventListOffset + kEventListSize * fileNo + sizeof(AlarmEventEntry) * index;
}
// Offset of key-frame entry k inside the media file's key-frame table.
constexpr uint32_t KeyFrameEntryOffset(uint32_t entryNo) { return kKeyFrameEntrySize * entryNo; }
static_assert(SectionInfoHeadPosition(3, 1) == 0x2C040);
static_assert(FileInfoHeadPosition(3) == 0x490);
