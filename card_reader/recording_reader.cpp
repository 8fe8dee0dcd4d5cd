#include "card_reader/recording_reader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/playback_reader.h"
#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"

namespace {

constexpr char kNameExample[] = "hi000000_000000.mp4";
// The largest frame a section holds, with room for one more PES payload.
constexpr uint32_t kFrameBufferSize = kMaxFrameLength + kPesMaxPayload;

std::string Text(const char *format, uint32_t a, uint32_t b = 0) {
    char text[160];
    std::snprintf(text, sizeof(text), format, a, b);
    return text;
}

int Fail(std::string *reason, const std::string &text) {
    if (reason != nullptr) *reason = text;
    return -1;
}

std::string CardPath(const char *cardDir, const char *name) {
    std::string path(cardDir);
    if (!path.empty() && path.back() != '/') path += '/';
    return path + name;
}

// The file record of the span's media file.
int ReadFileRecord(int fd, const RecordingSpan &span, FileInfoHead *file, std::string *reason) {
    RecordConfigInfo info;
    if (AV_RecordConfigInfoRead(fd, &info) < 0 || AV_RecordConfigInfoCheck(&info) != 0) {
        return Fail(reason, "no valid index header");
    }
    if (span.u32FileNo >= info.m_u32RecordFileSum ||
        AV_RecordFileInfoHeadAccecsFileNoRead(fd, span.u32FileNo, file) != 0 ||
        file->m_u32HeadFlag != kFileInfoHeadFlag) {
        return Fail(reason, Text("media file %u holds no recording", span.u32FileNo));
    }
    if (file->m_u32RecordSectionSum > kMaxSectionNo) file->m_u32RecordSectionSum = kMaxSectionNo;
    return 0;
}

// The first section of the file that match accepts.
template <typename Match>
bool FindSection(int fd, const FileInfoHead &file, Match match, SectionInfoHead *found) {
    std::vector<SectionInfoHead> sections(kMaxSectionNo);
    if (AV_RecordSectionInfoHeadRead(fd, &file, sections.data()) != 0) return false;
    for (uint32_t i = 0; i < file.m_u32RecordSectionSum; ++i) {
        if (sections[i].m_u32HeadFlag == kSectionInfoHeadFlag && match(sections[i])) {
            *found = sections[i];
            return true;
        }
    }
    return false;
}

int ReadEvent(const char *cardDir, const RecordingSpan &span, AlarmEventEntry *event, std::string *reason) {
    FileGuard events = AVFileOpenGuarded(CardPath(cardDir, kEventFileName));
    if (events.fd() < 0) return Fail(reason, "cannot open " + CardPath(cardDir, kEventFileName));
    AlarmEventInfo info;
    std::vector<AlarmEventEntry> entries(kMaxAlarmEventSum);
    bool listed = AV_AlarmEventFileInfoRead(events.fd(), span.u32FileNo, &info) == 0 &&
                  info.m_u32HeadFlag == kAlarmEventInfoFlag && info.m_u32AlarmEventSum != 0 &&
                  AV_AlarmEventEntryListRead(events.fd(), &info, entries.data()) == 0;
    if (!listed) return Fail(reason, Text("media file %u has no alarm events", span.u32FileNo));
    if (span.u32Number >= info.m_u32AlarmEventSum ||
        entries[span.u32Number].m_u32HeadFlag != kAlarmEventEntryFlag) {
        return Fail(reason, Text("media file %u has no alarm event %u", span.u32FileNo, span.u32Number));
    }
    *event = entries[span.u32Number];
    return 0;
}

// The section's data range, behind the record file header when there is one.
int SetDataRange(int mediaFd, RecordingSpan *span, std::string *reason) {
    const SectionInfoHead &s = span->stSection;
    uint64_t end = uint64_t{s.m_u32SectionOffset} + s.m_u32SectionSize;
    if (end > kKeyFrameTableOffset) {
        return Fail(reason, Text("section data %u+%u runs into the key-frame table", s.m_u32SectionOffset,
                                 s.m_u32SectionSize));
    }
    span->u32DataBegin = s.m_u32SectionOffset;
    span->u32DataEnd = static_cast<uint32_t>(end);
    uint8_t head[kRecordFileHeaderSize];
    if (AV_RecordStreamInfoRead(mediaFd, span->u32DataBegin, head, sizeof(head)) >= 0 &&
        std::memcmp(head, kRecordFileHeader, 4) == 0) {
        span->u32DataBegin += kRecordFileHeaderSize;
    }
    return 0;
}

std::string MediaPath(const char *cardDir, uint32_t fileNo) {
    char name[32];
    std::snprintf(name, sizeof(name), kMediaFileNameFormat, static_cast<int>(fileNo));
    return CardPath(cardDir, name);
}

// Walks frames from offset `at` up to the section's end.
int WalkFrames(int fd, const RecordingSpan &span, uint32_t at, std::vector<uint8_t> &buffer,
               const std::function<bool(const RecordingFrame &)> &visit, std::string *reason) {
    uint32_t time = 0;
    while (at < span.u32DataEnd) {
        RecordingFrame frame{at, 0, buffer.data(), 0, 0, 0, 0};
        uint32_t next = at;
        if (libAVRecordPlayBackGetPSFrameBounded(fd, &next, span.u32DataEnd, &frame.iType, buffer.data(),
                                                 static_cast<uint32_t>(buffer.size()), &frame.u32Length,
                                                 &time, &frame.u32Pts) != 0 ||
            next <= at) {
            return Fail(reason, Text("unreadable frame at offset %u of media file %u", at, span.u32FileNo));
        }
        frame.u32Time = time;
        if (frame.iType == kPSFrameVideo) frame.u16VideoCodec = PlayBackKeyFrameCodec(fd, at);
        if (!visit(frame)) break;
        at = next;
    }
    return 0;
}

// The walk of RecordingSeekStart on an open media file.
int SeekStart(int fd, RecordingSpan *span, uint32_t from, std::vector<uint8_t> &buffer, std::string *reason) {
    uint32_t first = span->u32DataBegin;
    uint32_t keyTime = 0;
    bool videoSeen = false;  // without a key frame, the first video frame's time
    int walked = WalkFrames(
        fd, *span, first, buffer,
        [&](const RecordingFrame &f) {
            if (f.Key()) first = f.u32Offset;
            if (f.Key() || (f.iType == kPSFrameVideo && !videoSeen)) keyTime = f.u32Time;
            videoSeen = videoSeen || f.iType == kPSFrameVideo;
            return f.iType != kPSFrameVideo || f.u32Time < from;
        },
        reason);
    if (walked != 0) return -1;
    span->u32DataBegin = first;
    span->u32KeyTime = keyTime;
    return 0;
}

}  // namespace

bool RecordingIsH265(const RecordingFrame &key) { return key.u16VideoCodec == kVideoCodecH265; }

int RecordingParseName(const char *name, RecordingSpan *span) {
    if (name == nullptr || span == nullptr || std::strlen(name) != std::strlen(kNameExample)) return -1;
    char kind = 0;
    unsigned fileNo = 0, number = 0;
    int used = 0;
    if (std::sscanf(name, "h%c%6u_%6u.mp4%n", &kind, &fileNo, &number, &used) != 3 ||
        used != static_cast<int>(std::strlen(kNameExample)) || (kind != 'i' && kind != 'e')) {
        return -1;
    }
    *span = RecordingSpan{};
    span->bEvent = kind == 'e';
    span->u32FileNo = fileNo;
    span->u32Number = number;
    return 0;
}

int RecordingLocate(const char *cardDir, RecordingSpan *span, std::string *reason) {
    if (cardDir == nullptr || span == nullptr) return Fail(reason, "no card or recording");
    FileGuard index = AVFileOpenGuarded(CardPath(cardDir, kIndexFileName));
    if (index.fd() < 0) return Fail(reason, "cannot open " + CardPath(cardDir, kIndexFileName));
    FileInfoHead file;
    if (ReadFileRecord(index.fd(), *span, &file, reason) != 0) return -1;
    if (span->bEvent) {
        AlarmEventEntry event;
        if (ReadEvent(cardDir, *span, &event, reason) != 0) return -1;
        span->u32FromTime = event.m_u32StartTime;
        span->u32ToTime = event.m_u32EndTime;
        auto holdsEvent = [&](const SectionInfoHead &s) {
            return s.m_u32StartTime <= event.m_u32StartTime && event.m_u32StartTime <= s.m_u32EndTime;
        };
        if (!FindSection(index.fd(), file, holdsEvent, &span->stSection)) {
            return Fail(reason, Text("no section of media file %u holds the event's start %u",
                                     span->u32FileNo, event.m_u32StartTime));
        }
    } else {
        auto numbered = [&](const SectionInfoHead &s) { return s.m_u16SectionNo == span->u32Number; };
        if (!FindSection(index.fd(), file, numbered, &span->stSection)) {
            return Fail(reason, Text("media file %u has no section %u", span->u32FileNo, span->u32Number));
        }
    }
    FileGuard media = AVFileOpenGuarded(MediaPath(cardDir, span->u32FileNo));
    if (media.fd() < 0) return Fail(reason, "cannot open " + MediaPath(cardDir, span->u32FileNo));
    return SetDataRange(media.fd(), span, reason);
}

uint32_t RecordingKeyEntryBefore(int mediaFd, const SectionInfoHead &s, uint32_t firstEntry, uint32_t from) {
    if (s.m_u32KeyFrameSum == 0 || s.m_u32StartTime >= from || firstEntry >= kMaxKeyFrameEntries) return 0;
    uint32_t count = std::min(s.m_u32KeyFrameSum, kMaxKeyFrameEntries - firstEntry);
    std::vector<KeyFrameEntry> entries(count);
    if (AV_RecordStreamInfoRead(mediaFd, kKeyFrameTableOffset + KeyFrameEntryOffset(firstEntry),
                                entries.data(), count * kKeyFrameEntrySize) < 0)
        return 0;
    // Entries follow the recording: the last one that fits is the one.
    for (auto e = entries.rbegin(); e != entries.rend(); ++e) {
        if (e->m_u32HeadFlag != kKeyFrameEntryFlag || e->m_u32Time >= from ||
            e->m_u32FrameOffset >= s.m_u32SectionSize)
            continue;
        uint32_t offset = s.m_u32SectionOffset + e->m_u32FrameOffset;
        if (libAVRecordPlayBackIsKeyFrame(mediaFd, offset) == 1) return offset;
    }
    return 0;
}

int RecordingSeekStart(const char *cardDir, RecordingSpan *span, uint32_t from, std::string *reason) {
    if (cardDir == nullptr || span == nullptr) return Fail(reason, "no card or recording");
    FileGuard media = AVFileOpenGuarded(MediaPath(cardDir, span->u32FileNo));
    if (media.fd() < 0) return Fail(reason, "cannot open " + MediaPath(cardDir, span->u32FileNo));
    std::vector<uint8_t> buffer(kFrameBufferSize);
    return SeekStart(media.fd(), span, from, buffer, reason);
}

int RecordingReadFrames(const char *cardDir, const RecordingSpan &span,
                        const std::function<bool(const RecordingFrame &)> &visit, std::string *reason) {
    if (cardDir == nullptr) return Fail(reason, "no card");
    FileGuard media = AVFileOpenGuarded(MediaPath(cardDir, span.u32FileNo));
    if (media.fd() < 0) return Fail(reason, "cannot open " + MediaPath(cardDir, span.u32FileNo));
    std::vector<uint8_t> buffer(kFrameBufferSize);
    RecordingSpan from = span;
    if (span.bEvent && SeekStart(media.fd(), &from, span.u32FromTime, buffer, reason) != 0) return -1;
    return WalkFrames(
        media.fd(), span, from.u32DataBegin, buffer,
        [&](const RecordingFrame &f) {
            bool pastEvent =
                span.bEvent && span.u32ToTime != 0 && f.iType == kPSFrameVideo && f.u32Time > span.u32ToTime;
            return !pastEvent && visit(f);
        },
        reason);
}
