#include "replay/card_catalog.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <tuple>

#include "avrecord_lib/frame_writer.h"
#include "avrecord_lib/ps_packetizer.h"
#include "avrecord_lib/record_builder.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "common/card_layout.h"

namespace {

// A record being rewritten settles within a few reads.
constexpr int kStableReadTries = 8;
// The first frame of a new lap covers at most this much of the file's start.
constexpr uint32_t kLapFrameReach = static_cast<uint32_t>(PSFrameBufferSize(kMaxFrameLength));

bool HoldsFrames(const SectionInfoHead &s) {
    return s.m_u32HeadFlag == kSectionInfoHeadFlag && s.m_u32SectionSize != 0 && s.m_u32EndTime != 0 &&
           s.m_u32StartTime <= s.m_u32EndTime &&
           uint64_t{s.m_u32SectionOffset} + s.m_u32SectionSize <= kKeyFrameTableOffset;
}

// The sections of one media file, each with its first key-frame entry.
void LoadFile(int fd, uint32_t fileNo, CardCatalog *catalog) {
    FileInfoHead file;
    if (CatalogReadFile(fd, fileNo, &file) != 0) return;
    uint32_t sum = std::min(file.m_u32RecordSectionSum, kMaxSectionNo);
    std::vector<SectionInfoHead> sections(sum);
    if (sum == 0 || CatalogStableRead(fd, SectionInfoHeadPosition(fileNo, 1), sections.data(),
                                      static_cast<uint32_t>(sum * sizeof(SectionInfoHead))) != 0) {
        return;
    }
    uint32_t keyFirst = 0;
    for (const SectionInfoHead &s : sections) {
        if (HoldsFrames(s) && s.m_u32FileNo == (fileNo & 0xFFFF)) {
            catalog->sections.push_back(CatalogSection{fileNo, file.m_u32StartTime, keyFirst, s});
        }
        if (s.m_u32HeadFlag == kSectionInfoHeadFlag) keyFirst += s.m_u32KeyFrameSum;
    }
}

uint32_t PreviousFile(uint32_t fileNo, uint32_t sum) { return fileNo == 0 ? sum - 1 : fileNo - 1; }

// Whether the file record read now is still the one the section was listed
// under. A new lap starts the record afresh: a later start time and one
// section. A clock stepped back only moves the start earlier.
bool SameLap(const FileInfoHead &file, const CatalogSection &section) {
    return file.m_u32StartTime <= section.u32FileStart &&
           file.m_u32RecordSectionSum >= section.stSection.m_u16SectionNo;
}

}  // namespace

bool CatalogBefore(const CatalogSection &a, const CatalogSection &b) {
    return std::make_tuple(a.stSection.m_u32StartTime, a.u32FileNo, a.stSection.m_u16SectionNo) <
           std::make_tuple(b.stSection.m_u32StartTime, b.u32FileNo, b.stSection.m_u16SectionNo);
}

int CatalogStableRead(int fd, uint32_t offset, void *buf, uint32_t length) {
    std::vector<uint8_t> again(length);
    if (AV_RecordStreamInfoRead(fd, offset, buf, length) < 0) return -1;
    for (int i = 0; i < kStableReadTries; ++i) {
        if (AV_RecordStreamInfoRead(fd, offset, again.data(), length) < 0) return -1;
        if (std::memcmp(buf, again.data(), length) == 0) return 0;
        std::memcpy(buf, again.data(), length);
    }
    return -1;
}

int CatalogReadHeader(int indexFd, RecordConfigInfo *info) {
    if (CatalogStableRead(indexFd, 0, info, sizeof(*info)) != 0) return -1;
    return AV_RecordConfigInfoCheck(info) == 0 && info->m_u32RecordFileSum != 0 ? 0 : -1;
}

int CatalogReadFile(int indexFd, uint32_t fileNo, FileInfoHead *file) {
    if (CatalogStableRead(indexFd, FileInfoHeadPosition(fileNo), file, sizeof(*file)) != 0) return -1;
    return file->m_u32HeadFlag == kFileInfoHeadFlag ? 0 : -1;
}

int CatalogReadSection(int indexFd, uint32_t fileNo, uint32_t sectionNo, SectionInfoHead *section) {
    return CatalogStableRead(indexFd, SectionInfoHeadPosition(fileNo, sectionNo), section, sizeof(*section));
}

int CatalogLoad(const std::string &cardDir, CardCatalog *catalog) {
    CatalogFile index(CatalogPath(cardDir, kIndexFileName));
    catalog->sections.clear();
    if (index.fd() < 0 || CatalogReadHeader(index.fd(), &catalog->stHeader) != 0) return -1;
    uint32_t files = std::min(catalog->stHeader.m_u32RecordFileSum, kMaxIndexSectionBlocks);
    for (uint32_t n = 0; n < files; ++n) LoadFile(index.fd(), n, catalog);
    std::sort(catalog->sections.begin(), catalog->sections.end(), CatalogBefore);
    return 0;
}

const CatalogSection *CatalogNext(const CardCatalog &catalog, const CatalogSection &after) {
    for (const CatalogSection &s : catalog.sections) {
        if (CatalogBefore(after, s)) return &s;
    }
    return nullptr;
}

const CatalogSection *CatalogAt(const CardCatalog &catalog, uint32_t t) {
    for (const CatalogSection &s : catalog.sections) {
        if (s.stSection.m_u32EndTime >= t) return &s;
    }
    return nullptr;
}

int CatalogLapState(int indexFd, const CatalogSection &section, uint32_t begin, LapState *state) {
    RecordConfigInfo info;
    FileInfoHead file;
    if (CatalogReadHeader(indexFd, &info) != 0) return -1;
    if (CatalogReadFile(indexFd, section.u32FileNo, &file) != 0 || !SameLap(file, section)) {
        *state = LapState::kLapped;
        return 0;
    }
    *state = LapState::kIntact;
    uint32_t current = info.m_u32FileInfoHeadNo;
    if (current != PreviousFile(section.u32FileNo, info.m_u32RecordFileSum) || begin >= kLapFrameReach)
        return 0;
    FileInfoHead previous;
    if (CatalogReadFile(indexFd, current, &previous) == 0 && AV_RecordFileInfoHeadIsFull(&previous)) {
        *state = LapState::kAtRisk;
    }
    return 0;
}

bool CatalogIsCurrent(int indexFd, const CatalogSection &section) {
    RecordConfigInfo info;
    FileInfoHead file;
    return CatalogReadHeader(indexFd, &info) == 0 && info.m_u32FileInfoHeadNo == section.u32FileNo &&
           CatalogReadFile(indexFd, section.u32FileNo, &file) == 0 && SameLap(file, section) &&
           file.m_u32RecordSectionSum == section.stSection.m_u16SectionNo;
}

std::string CatalogPath(const std::string &cardDir, const char *name) {
    std::string path(cardDir);
    if (!path.empty() && path.back() != '/') path += '/';
    return path + name;
}

std::string CatalogMediaPath(const std::string &cardDir, uint32_t fileNo) {
    char name[32];
    std::snprintf(name, sizeof(name), kMediaFileNameFormat, static_cast<int>(fileNo));
    return CatalogPath(cardDir, name);
}

namespace {

// Whether one of the file's sections holds second t: an event slot not yet
// renewed in a new lap still lists the events of the lap before.
bool InFileSections(const CardCatalog &catalog, uint32_t fileNo, uint32_t t) {
    for (const CatalogSection &s : catalog.sections) {
        if (s.u32FileNo == fileNo && s.stSection.m_u32StartTime <= t && t <= s.stSection.m_u32EndTime)
            return true;
    }
    return false;
}

void LoadFileAlarms(int fd, const CardCatalog &catalog, uint32_t fileNo, std::vector<CatalogAlarm> *alarms) {
    AlarmEventInfo info;
    if (CatalogStableRead(fd, AlarmEventInfoPosition(fileNo), &info, sizeof(info)) != 0 ||
        info.m_u32HeadFlag != kAlarmEventInfoFlag) {
        return;
    }
    uint32_t sum = std::min(info.m_u32AlarmEventSum, kMaxAlarmEventListRead);
    std::vector<AlarmEventEntry> entries(sum);
    if (sum == 0 || CatalogStableRead(fd, AlarmEventEntryPosition(fileNo, 0), entries.data(),
                                      static_cast<uint32_t>(sum * sizeof(AlarmEventEntry))) != 0) {
        return;
    }
    for (const AlarmEventEntry &e : entries) {
        if (e.m_u32HeadFlag == kAlarmEventEntryFlag && InFileSections(catalog, fileNo, e.m_u32StartTime)) {
            alarms->push_back(CatalogAlarm{e.m_u32StartTime, e.m_u32EndTime, e.m_u8AlarmType});
        }
    }
}

}  // namespace

int CatalogLoadAlarms(const std::string &cardDir, const CardCatalog &catalog,
                      std::vector<CatalogAlarm> *alarms) {
    CatalogFile events(CatalogPath(cardDir, kEventFileName));
    alarms->clear();
    if (events.fd() < 0) return -1;
    std::vector<uint32_t> files;
    for (const CatalogSection &s : catalog.sections) files.push_back(s.u32FileNo);
    std::sort(files.begin(), files.end());
    files.erase(std::unique(files.begin(), files.end()), files.end());
    for (uint32_t n : files) LoadFileAlarms(events.fd(), catalog, n, alarms);
    std::sort(alarms->begin(), alarms->end(),
              [](const CatalogAlarm &a, const CatalogAlarm &b) { return a.u32Start < b.u32Start; });
    return 0;
}
