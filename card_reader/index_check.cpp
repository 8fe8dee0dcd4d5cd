#include "card_reader/index_check.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/playback_reader.h"
#include "avrecord_lib/ps_format.h"
#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "card_reader/event_slot.h"
#include "common/file_guard.h"

namespace {

// A section's frame rate field against its frames: rates above this are
// no camera's, and over a section this long the frame count tells the
// rate well enough to see a field that promises more than the slack
// times the frames there are (a camera drops frames in the dark or under
// load, never this many). More frames than the field gives are no sign of
// damage: test rigs feed the recorder faster than real time.
constexpr uint32_t kMaxFrameRate = 120;
constexpr uint32_t kRateJudgeSeconds = 10;
constexpr uint64_t kRateSlack = 4;
// Room for the largest frame the writer takes.
constexpr uint32_t kFrameWalkBufferSize = kMaxFrameLength + kPSKeyFrameReadLimit;

class IndexChecker {
public:
    IndexChecker(const std::string &cardDir, std::vector<IndexProblem> *problems)
        : cardDir_(cardDir), problems_(problems) {}

    void CheckHeader(const RecordConfigInfo &header);
    void CheckFile(int indexFd, uint32_t fileNo, const FileInfoHead &file);
    void CheckEvents(uint32_t fileSum);

private:
    void Add(int64_t fileNo, uint32_t sectionNo, const char *format, ...)
        __attribute__((format(printf, 4, 5)));
    void CheckSection(const FileInfoHead &file, uint32_t slot, const SectionInfoHead &section,
                      uint32_t *dataEnd);
    void CheckFrameRate(uint32_t fileNo, uint32_t slot, const SectionInfoHead &section);
    void CheckKeyFrames(int mediaFd, const FileInfoHead &file, const SectionInfoHead *sections);
    void CheckKeyFrame(int mediaFd, const FileInfoHead &file, const SectionInfoHead *section,
                       uint32_t entryNo);
    void CheckEventSlot(int eventFd, uint32_t fileNo);

    std::string cardDir_;
    std::vector<IndexProblem> *problems_;
};

void IndexChecker::Add(int64_t fileNo, uint32_t sectionNo, const char *format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    problems_->push_back(IndexProblem{fileNo, sectionNo, text});
}

void IndexChecker::CheckHeader(const RecordConfigInfo &header) {
    uint32_t sum = header.m_u32RecordFileSum;
    if (sum == 0) Add(-1, 0, "no media files (m_u32RecordFileSum is 0)");
    if (sum > kMaxIndexFileRecords || sum > kMaxIndexSectionBlocks) {
        Add(-1, 0, "m_u32RecordFileSum %u is more than the index can describe", sum);
    }
    if (header.m_u32RecordSpaceSize != sum << kMediaFileSizeShift) {
        Add(-1, 0, "m_u32RecordSpaceSize %#x does not match %u files", header.m_u32RecordSpaceSize, sum);
    }
    if (header.m_u32RecordFileUsed > sum)
        Add(-1, 0, "m_u32RecordFileUsed %u exceeds %u", header.m_u32RecordFileUsed, sum);
    if (sum != 0 && header.m_u32FileInfoHeadNo >= sum) {
        Add(-1, 0, "current file %u is not below %u", header.m_u32FileInfoHeadNo, sum);
    }
    if (header.m_u32CheckCode != kRecordCheckCode) Add(-1, 0, "check code %#x", header.m_u32CheckCode);
    for (uint32_t fileNo = 0; fileNo < sum && fileNo < kMaxIndexFileRecords; ++fileNo) {
        int64_t size = CardFileSize(CardMediaFilePath(cardDir_, fileNo));
        if (size < 0) {
            Add(fileNo, 0, "media file missing");
        } else if (size != kMediaFileSize) {
            Add(fileNo, 0, "media file is %lld bytes, not %u", static_cast<long long>(size), kMediaFileSize);
        }
    }
}

void IndexChecker::CheckFile(int indexFd, uint32_t fileNo, const FileInfoHead &file) {
    if (file.m_u32HeadFlag != kFileInfoHeadFlag) return;  // no recording in this file
    if (file.m_u32FileNo != fileNo) {
        Add(fileNo, 0, "record names file %u", file.m_u32FileNo);
        return;  // its sections would be looked for in another file's block
    }
    if (file.m_u32DataSize > kKeyFrameTableOffset) {
        Add(fileNo, 0, "data size %#x reaches the key-frame table", file.m_u32DataSize);
    }
    if (file.m_u32EndTime != 0 && file.m_u32EndTime < file.m_u32StartTime) {
        Add(fileNo, 0, "ends (%u) before it starts (%u)", file.m_u32EndTime, file.m_u32StartTime);
    }
    if (file.m_u32KeyFrameSum > kMaxKeyFrameEntries) {
        Add(fileNo, 0, "%u key frames do not fit the key-frame table", file.m_u32KeyFrameSum);
    }
    uint32_t sectionSum = file.m_u32RecordSectionSum;
    if (sectionSum == 0 || sectionSum > kMaxSectionNo) {
        Add(fileNo, 0, "section count %u is not 1..%u", sectionSum, kMaxSectionNo);
        return;
    }
    SectionInfoHead sections[kMaxSectionNo];
    if (AV_RecordSectionInfoHeadRead(indexFd, &file, sections) < 0) {
        Add(fileNo, 0, "section records unreadable");
        return;
    }
    uint32_t dataEnd = 0;
    uint32_t keyFrames = 0;
    size_t problemsBefore = problems_->size();
    for (uint32_t slot = 1; slot <= sectionSum; ++slot) {
        CheckSection(file, slot, sections[slot - 1], &dataEnd);
        keyFrames += sections[slot - 1].m_u32KeyFrameSum;
    }
    // The sections hold the file's data up to its size (a section record
    // that missed its last update ends short of it); said only when the
    // sections themselves are in order.
    if (sectionSum < kMaxSectionNo && problems_->size() == problemsBefore && dataEnd < file.m_u32DataSize) {
        Add(fileNo, sectionSum, "sections end at %#x, short of the file's data size %#x", dataEnd,
            file.m_u32DataSize);
    }
    // Once slot 251 has been reused the earlier counts of that slot are gone.
    if (sectionSum < kMaxSectionNo && keyFrames != file.m_u32KeyFrameSum) {
        Add(fileNo, 0, "sections hold %u key frames, the file %u", keyFrames, file.m_u32KeyFrameSum);
        return;
    }
    if (file.m_u32KeyFrameSum > kMaxKeyFrameEntries || sectionSum >= kMaxSectionNo) return;
    FileGuard media = AVFileOpenGuarded(CardMediaFilePath(cardDir_, fileNo));
    if (media.fd() >= 0) CheckKeyFrames(media.fd(), file, sections);
}

void IndexChecker::CheckSection(const FileInfoHead &file, uint32_t slot, const SectionInfoHead &section,
                                uint32_t *dataEnd) {
    uint32_t fileNo = file.m_u32FileNo;
    // Another slot's or file's record says nothing about this section.
    std::string damage = SectionRecordDamage(section, fileNo, slot);
    if (!damage.empty()) {
        Add(fileNo, slot, "%s", damage.c_str());
        return;
    }
    if (section.m_u32KeyFrameEntrySize != kKeyFrameEntrySize) {
        Add(fileNo, slot, "key-frame entry size %u", section.m_u32KeyFrameEntrySize);
    }
    uint64_t end = static_cast<uint64_t>(section.m_u32SectionOffset) + section.m_u32SectionSize;
    if (end > file.m_u32DataSize) {
        Add(fileNo, slot, "data [%#x, %#llx) runs past the file's data size %#x", section.m_u32SectionOffset,
            static_cast<unsigned long long>(end), file.m_u32DataSize);
    }
    // Sections follow one another without gaps; a reused last slot may
    // leave one behind the sections it replaced.
    bool reusedSlot = slot == kMaxSectionNo && section.m_u32SectionOffset > *dataEnd;
    if (section.m_u32SectionOffset != *dataEnd && !reusedSlot) {
        Add(fileNo, slot, "starts at %#x, the previous section ends at %#x", section.m_u32SectionOffset,
            *dataEnd);
    }
    *dataEnd = static_cast<uint32_t>(end);
    if (section.m_u32StartTime < file.m_u32StartTime) {
        Add(fileNo, slot, "starts (%u) before its file (%u)", section.m_u32StartTime, file.m_u32StartTime);
    }
    if (section.m_u32EndTime != 0 && section.m_u32EndTime < section.m_u32StartTime) {
        Add(fileNo, slot, "ends (%u) before it starts (%u)", section.m_u32EndTime, section.m_u32StartTime);
    }
    if (section.m_u32KeyFrameSum > section.m_u32VideoFrameSum) {
        Add(fileNo, slot, "%u key frames but %u video frames", section.m_u32KeyFrameSum,
            section.m_u32VideoFrameSum);
    }
    CheckFrameRate(fileNo, slot, section);
}

// Players and exports time the frames by the rate field, so a wrong one
// makes every export of the section too short or too long.
void IndexChecker::CheckFrameRate(uint32_t fileNo, uint32_t slot, const SectionInfoHead &section) {
    uint32_t rate = section.m_u8FrameRate;
    if (section.m_u32VideoFrameSum == 0 || rate == 0) return;  // 0: not known, players take 25
    if (rate > kMaxFrameRate) {
        Add(fileNo, slot, "frame rate %u fps is none a camera records", rate);
        return;
    }
    if (section.m_u32EndTime < uint64_t{section.m_u32StartTime} + kRateJudgeSeconds) return;
    uint64_t seconds = section.m_u32EndTime - section.m_u32StartTime;
    uint64_t frames = section.m_u32VideoFrameSum;
    if (frames * kRateSlack < rate * seconds) {
        Add(fileNo, slot, "frame rate %u fps, but %u video frames in %llu s (about %llu fps)", rate,
            section.m_u32VideoFrameSum, static_cast<unsigned long long>(seconds),
            static_cast<unsigned long long>((frames + seconds / 2) / seconds));
    }
}

// Entries are numbered over the whole file: the first sections' entries come
// first, each entry's offset counted from its section's start.
void IndexChecker::CheckKeyFrames(int mediaFd, const FileInfoHead &file, const SectionInfoHead *sections) {
    uint32_t entryNo = 0;
    for (uint32_t slot = 0; slot < file.m_u32RecordSectionSum; ++slot) {
        for (uint32_t k = 0; k < sections[slot].m_u32KeyFrameSum; ++k)
            CheckKeyFrame(mediaFd, file, &sections[slot], entryNo++);
    }
}

void IndexChecker::CheckKeyFrame(int mediaFd, const FileInfoHead &file, const SectionInfoHead *section,
                                 uint32_t entryNo) {
    uint32_t fileNo = file.m_u32FileNo;
    uint32_t slot = section->m_u16SectionNo;
    KeyFrameEntry entry;
    if (AV_RecordKeyFrameEntryRead(mediaFd, KeyFrameEntryOffset(entryNo), &entry) < 0) {
        Add(fileNo, slot, "key-frame entry %u unreadable", entryNo);
        return;
    }
    if (entry.m_u32HeadFlag != kKeyFrameEntryFlag) {
        Add(fileNo, slot, "key-frame entry %u has no magic (%#x)", entryNo, entry.m_u32HeadFlag);
        return;
    }
    if (entry.m_u8KeyType != kKeyTypeParameterSet && entry.m_u8KeyType != kKeyTypeEncoderMark) {
        Add(fileNo, slot, "key-frame entry %u has key type %u", entryNo, entry.m_u8KeyType);
    }
    if (static_cast<uint64_t>(entry.m_u32FrameOffset) + entry.m_u32FrameSize > section->m_u32SectionSize) {
        Add(fileNo, slot, "key-frame entry %u (offset %#x, %u bytes) lies outside the section", entryNo,
            entry.m_u32FrameOffset, entry.m_u32FrameSize);
        return;
    }
    uint8_t start[kPsStartCodeSize];
    uint32_t position = section->m_u32SectionOffset + entry.m_u32FrameOffset;
    bool readable = AV_RecordStreamInfoRead(mediaFd, position, start, sizeof start) >= 0;
    // A section's first frame stands behind the record file header.
    if (readable && entry.m_u32FrameOffset == 0 && memcmp(start, kRecordFileHeader, sizeof start) == 0) {
        position += kRecordFileHeaderSize;
        readable = AV_RecordStreamInfoRead(mediaFd, position, start, sizeof start) >= 0;
    }
    if (!readable || !PsIsStartCode(start, kPsPackId)) {
        Add(fileNo, slot, "key-frame entry %u points at %#x, which holds no pack header", entryNo, position);
    }
}

void IndexChecker::CheckEvents(uint32_t fileSum) {
    FileGuard event = AVFileOpenGuarded(cardDir_ + kEventFileName);
    if (event.fd() < 0) return;  // nothing recorded there yet
    for (uint32_t fileNo = 0; fileNo < fileSum && fileNo < kMaxEventLists; ++fileNo) {
        CheckEventSlot(event.fd(), fileNo);
    }
}

void IndexChecker::CheckEventSlot(int eventFd, uint32_t fileNo) {
    EventSlot slot = ReadEventSlot(eventFd, fileNo);
    if (!slot.damage.empty()) Add(fileNo, 0, "%s", slot.damage.c_str());
}

}  // namespace

std::string SectionRecordDamage(const SectionInfoHead &section, uint32_t fileNo, uint32_t slot) {
    char text[64];
    if (section.m_u32HeadFlag != kSectionInfoHeadFlag) {
        snprintf(text, sizeof text, "no section record (magic %#x)", section.m_u32HeadFlag);
    } else if (section.m_u16SectionNo != slot) {
        snprintf(text, sizeof text, "numbered %u", section.m_u16SectionNo);
    } else if (section.m_u32FileNo != static_cast<uint16_t>(fileNo)) {
        snprintf(text, sizeof text, "names file %u", section.m_u32FileNo);
    } else {
        return {};
    }
    return text;
}

std::string CardMediaFilePath(const std::string &cardDir, uint32_t fileNo) {
    char name[32];
    snprintf(name, sizeof name, kMediaFileNameFormat, static_cast<int>(fileNo));
    return cardDir + name;
}

int64_t CardFileSize(const std::string &path) {
    FileGuard fd = AVFileOpenGuarded(path);
    if (fd.fd() < 0) return -1;
    return static_cast<uint32_t>(AVFileSeek(fd.fd(), 0, kAVFileSeekEnd));
}

int LoadCardIndex(const std::string &cardDir, CardIndex *index, std::string *reason) {
    std::string path = cardDir + kIndexFileName;
    FileGuard fd = AVFileOpenGuarded(path);
    if (fd.fd() < 0) {
        *reason = "cannot open " + path;
        return -1;
    }
    if (AV_RecordConfigInfoRead(fd.fd(), &index->header) < 0) {
        *reason = "cannot read the index header of " + path;
        return -1;
    }
    if (AV_RecordConfigInfoCheck(&index->header) < 0) {
        *reason = "no valid index header in " + path + " (card not initialised?)";
        return -1;
    }
    uint32_t sum = index->header.m_u32RecordFileSum;
    index->files.assign(sum < kMaxIndexFileRecords ? sum : kMaxIndexFileRecords, FileInfoHead{});
    for (uint32_t fileNo = 0; fileNo < index->files.size(); ++fileNo) {
        if (AV_RecordFileInfoHeadAccecsFileNoRead(fd.fd(), fileNo, &index->files[fileNo]) < 0) {
            *reason = "cannot read the file records of " + path;
            return -1;
        }
    }
    return 0;
}

int CheckCardIndex(const std::string &cardDir, std::vector<IndexProblem> *problems) {
    CardIndex index;
    std::string reason;
    if (LoadCardIndex(cardDir, &index, &reason) < 0) {
        problems->push_back(IndexProblem{-1, 0, reason});
        return -1;
    }
    IndexChecker checker(cardDir, problems);
    checker.CheckHeader(index.header);
    FileGuard fd = AVFileOpenGuarded(cardDir + kIndexFileName);
    for (uint32_t fileNo = 0; fileNo < index.files.size(); ++fileNo)
        checker.CheckFile(fd.fd(), fileNo, index.files[fileNo]);
    checker.CheckEvents(static_cast<uint32_t>(index.files.size()));
    return 0;
}

namespace {

// Where a section's frames can be picked up again: the frames its valid
// key-frame entries point at (behind the record file header for the first).
std::vector<uint32_t> SectionEntryPoints(int mediaFd, const SectionInfoHead &section, uint32_t firstEntry) {
    std::vector<uint32_t> points;
    uint32_t count = std::min(section.m_u32KeyFrameSum, kMaxKeyFrameEntries);
    for (uint32_t k = 0; k < count && firstEntry + k < kMaxKeyFrameEntries; ++k) {
        KeyFrameEntry entry;
        if (AV_RecordKeyFrameEntryRead(mediaFd, KeyFrameEntryOffset(firstEntry + k), &entry) < 0 ||
            entry.m_u32HeadFlag != kKeyFrameEntryFlag)
            continue;
        uint32_t at = section.m_u32SectionOffset + entry.m_u32FrameOffset;
        points.push_back(entry.m_u32FrameOffset == 0 ? at + kRecordFileHeaderSize : at);
    }
    std::sort(points.begin(), points.end());
    return points;
}

}  // namespace

void WalkSectionFrames(int mediaFd, const SectionInfoHead &section, uint32_t firstEntry, uint8_t *buf,
                       uint32_t bufSize, const SectionFrameWalk &walk) {
    std::vector<uint32_t> points = SectionEntryPoints(mediaFd, section, firstEntry);
    uint64_t end64 = uint64_t{section.m_u32SectionOffset} + section.m_u32SectionSize;
    uint32_t end = static_cast<uint32_t>(std::min<uint64_t>(end64, kKeyFrameTableOffset));
    uint32_t at = section.m_u32SectionOffset + kRecordFileHeaderSize;
    while (at < end) {
        uint32_t next = at;
        int type;
        uint32_t length;
        if (libAVRecordPlayBackGetPSFrameBounded(mediaFd, &next, end, &type, buf, bufSize, &length, nullptr,
                                                 nullptr) == 0 &&
            next > at) {
            if (walk.onFrame) walk.onFrame(buf, length);
            at = next;
            continue;
        }
        auto resume = std::upper_bound(points.begin(), points.end(), at);
        uint32_t resumed = resume != points.end() && *resume < end ? *resume : 0;
        if (walk.onGap) walk.onGap(at, resumed);
        if (resumed == 0) break;
        at = resumed;
    }
}

int ForEachCardSection(const std::string &cardDir,
                       const std::function<void(int, const SectionInfoHead &, uint32_t)> &fn) {
    CardIndex index;
    std::string reason;
    if (LoadCardIndex(cardDir, &index, &reason) < 0) return -1;
    FileGuard indexFd = AVFileOpenGuarded(cardDir + kIndexFileName);
    std::vector<SectionInfoHead> sections(kMaxSectionNo);
    for (const FileInfoHead &file : index.files) {
        if (file.m_u32HeadFlag != kFileInfoHeadFlag ||
            AV_RecordSectionInfoHeadRead(indexFd.fd(), &file, sections.data()) < 0)
            continue;
        FileGuard media = AVFileOpenGuarded(CardMediaFilePath(cardDir, file.m_u32FileNo));
        uint32_t firstEntry = 0;
        for (uint32_t slot = 0; slot < file.m_u32RecordSectionSum && slot < kMaxSectionNo; ++slot) {
            if (sections[slot].m_u32HeadFlag != kSectionInfoHeadFlag) continue;
            if (media.fd() >= 0) fn(media.fd(), sections[slot], firstEntry);
            firstEntry += sections[slot].m_u32KeyFrameSum;
        }
    }
    return 0;
}

int CheckCardFrames(const std::string &cardDir, std::vector<IndexProblem> *problems) {
    std::unique_ptr<uint8_t[]> buf(new uint8_t[kFrameWalkBufferSize]);
    int result = ForEachCardSection(cardDir, [&](int mediaFd, const SectionInfoHead &section,
                                                 uint32_t first) {
        SectionFrameWalk walk;
        walk.onGap = [&](uint32_t brokeOff, uint32_t resumed) {
            char text[128];
            if (resumed != 0) {
                snprintf(text, sizeof text, "frame at %#x unreadable; frames up to the key frame at %#x lost",
                         brokeOff, resumed);
            } else {
                snprintf(text, sizeof text, "frame at %#x unreadable; the rest of the section is lost",
                         brokeOff);
            }
            problems->push_back(IndexProblem{section.m_u32FileNo, section.m_u16SectionNo, text});
        };
        WalkSectionFrames(mediaFd, section, first, buf.get(), kFrameWalkBufferSize, walk);
    });
    if (result < 0) problems->push_back(IndexProblem{-1, 0, "the index cannot be read"});
    return result;
}

std::string FormatIndexProblem(const IndexProblem &problem) {
    char where[64];
    if (problem.fileNo < 0) {
        snprintf(where, sizeof where, "header");
    } else if (problem.sectionNo == 0) {
        snprintf(where, sizeof where, "file %lld", static_cast<long long>(problem.fileNo));
    } else {
        snprintf(where, sizeof where, "file %lld section %u", static_cast<long long>(problem.fileNo),
                 problem.sectionNo);
    }
    return std::string(where) + ": " + problem.text;
}
