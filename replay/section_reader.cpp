#include "replay/section_reader.h"

#include <algorithm>
#include <cstring>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/playback_reader.h"
#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "card_reader/adts_header.h"

namespace {

// Most frames fit; the buffer grows to the largest frame a section can hold
// only when one needs it.
constexpr uint32_t kInitialBuffer = 1u << 20;
constexpr uint32_t kLargestFrame = kMaxFrameLength + kPesMaxPayload;
constexpr uint32_t kG711Rate = 8000;
constexpr uint64_t kUsPerSecond = 1000000;

uint32_t DataEnd(const SectionInfoHead &s) { return s.m_u32SectionOffset + s.m_u32SectionSize; }

}  // namespace

SectionReader::~SectionReader() {
    if (mediaFd_ >= 0) AVFileClose(mediaFd_);
}

int SectionReader::Open(const std::string &cardDir, int indexFd, const CatalogSection &section) {
    if (mediaFd_ >= 0) AVFileClose(mediaFd_);
    indexFd_ = indexFd;
    section_ = section;
    mediaFd_ = AVFileOpen(CatalogMediaPath(cardDir, section.u32FileNo).c_str(), kAVFileModeRead);
    if (mediaFd_ < 0) return -1;
    if (buffer_.empty()) buffer_.resize(kInitialBuffer);
    begin_ = section.stSection.m_u32SectionOffset;
    end_ = DataEnd(section.stSection);
    uint8_t head[kRecordFileHeaderSize];
    if (AV_RecordStreamInfoRead(mediaFd_, begin_, head, sizeof(head)) >= 0 &&
        std::memcmp(head, kRecordFileHeader, sizeof(head)) == 0) {
        begin_ += kRecordFileHeaderSize;
    }
    pos_ = begin_;
    wall_ = section.stSection.m_u32StartTime;
    clock_ = FrameClock(section.stSection.m_u8FrameRate);
    return 0;
}

int SectionReader::ReadFrameBytes(uint32_t *next, int *type, uint32_t *length, uint32_t *wall,
                                  uint32_t *pts) {
    for (;;) {
        *next = pos_;
        if (libAVRecordPlayBackGetPSFrameBounded(mediaFd_, next, end_, type, buffer_.data(),
                                                 static_cast<uint32_t>(buffer_.size()), length, wall,
                                                 pts) == 0 &&
            *next > pos_) {
            return 0;
        }
        if (buffer_.size() >= kLargestFrame) return -1;
        buffer_.resize(kLargestFrame);
    }
}

void SectionReader::AudioFormat(const uint8_t *data, uint32_t length, uint32_t *rate,
                                uint32_t *channels) const {
    *rate = kG711Rate;
    *channels = 1;
    AdtsHeader adts;
    if (section_.stSection.m_u8AudioCodeType == kSectionAudioAac && AdtsParse(data, length, &adts)) {
        *rate = adts.sampleRate;
        *channels = adts.channels;
    }
}

uint64_t SectionReader::CaptureTime(bool video, uint32_t length, uint32_t pts) {
    if (video) return clock_.Video(pts, wall_);
    uint32_t rate = 0, channels = 0;
    AudioFormat(buffer_.data(), length, &rate, &channels);
    bool aac = section_.stSection.m_u8AudioCodeType == kSectionAudioAac;
    return clock_.Audio(aac ? kAacSamplesPerFrame : length, rate);
}

SectionRead SectionReader::Read(SectionFrame *frame) {
    if (pos_ >= end_) return SectionRead::kEnd;
    uint32_t next = 0, length = 0, wall = wall_, pts = 0;
    int type = kPSFrameVideo;
    bool unreadable = ReadFrameBytes(&next, &type, &length, &wall, &pts) != 0;
    if (!unreadable && recorded_) {
        recordedBytes_.resize(next - pos_);
        unreadable = AV_RecordStreamInfoRead(mediaFd_, pos_, recordedBytes_.data(), next - pos_) < 0;
    }
    // The bytes count only when the recorder had not begun to overwrite
    // them while they were read.
    LapState lap;
    if (CatalogLapState(indexFd_, section_, pos_, &lap) != 0) return SectionRead::kError;
    if (lap != LapState::kIntact || unreadable) return SectionRead::kEnded;
    bool video = type == kPSFrameVideo;
    if (video) wall_ = wall;
    uint16_t codec = video ? PlayBackKeyFrameCodec(mediaFd_, pos_) : 0;
    uint64_t capture = CaptureTime(video, length, pts);
    *frame = recorded_ ? SectionFrame{video,
                                      pos_,
                                      pts,
                                      capture,
                                      recordedBytes_.data(),
                                      static_cast<uint32_t>(recordedBytes_.size()),
                                      codec}
                       : SectionFrame{video, pos_, pts, capture, buffer_.data(), length, codec};
    pos_ = next;
    return SectionRead::kFrame;
}

// Where the walk to the key frame at or before the start begins: the last
// key frame of an earlier second, as the key-frame table gives it.
uint32_t SectionReader::SeekStart(uint32_t startSecond) {
    const SectionInfoHead &s = section_.stSection;
    uint32_t low = 0, high = s.m_u32KeyFrameSum, found = begin_;
    while (low < high) {
        uint32_t mid = low + (high - low) / 2;
        KeyFrameEntry entry;
        if (AV_RecordKeyFrameEntryRead(mediaFd_, KeyFrameEntryOffset(section_.u32KeyFirst + mid), &entry) !=
                0 ||
            entry.m_u32HeadFlag != kKeyFrameEntryFlag || entry.m_u32FrameOffset >= s.m_u32SectionSize) {
            return begin_;
        }
        if (entry.m_u32Time < startSecond) {
            found = std::max(begin_, s.m_u32SectionOffset + entry.m_u32FrameOffset);
            low = mid + 1;
        } else {
            high = mid;
        }
    }
    return found;
}

SectionRead SectionReader::Seek(uint64_t startUs) {
    if (startUs <= uint64_t{section_.stSection.m_u32StartTime} * kUsPerSecond) return SectionRead::kFrame;
    uint32_t from = SeekStart(static_cast<uint32_t>(startUs / kUsPerSecond));
    pos_ = from;
    Place best{from, clock_};
    for (;;) {
        Place here{pos_, clock_};
        SectionFrame frame;
        SectionRead r = Read(&frame);
        if (r == SectionRead::kEnd) break;
        if (r != SectionRead::kFrame) return r;
        if (!frame.bVideo) continue;
        if (frame.u64CaptureUs > startUs) break;
        if (frame.Key()) best = here;
    }
    pos_ = best.offset;
    clock_ = best.clock;
    return SectionRead::kFrame;
}

int SectionReader::Refresh() {
    SectionInfoHead now;
    const SectionInfoHead &was = section_.stSection;
    if (CatalogReadSection(indexFd_, section_.u32FileNo, was.m_u16SectionNo, &now) != 0) return 0;
    if (now.m_u32HeadFlag != kSectionInfoHeadFlag || now.m_u32StartTime != was.m_u32StartTime ||
        now.m_u32SectionOffset != was.m_u32SectionOffset || now.m_u32SectionSize < was.m_u32SectionSize ||
        uint64_t{DataEnd(now)} > kKeyFrameTableOffset) {
        return -1;
    }
    if (now.m_u32SectionSize == was.m_u32SectionSize) return 0;
    section_.stSection = now;
    end_ = DataEnd(now);
    return 1;
}
