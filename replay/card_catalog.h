// The card's recordings as a reader sees them while the recorder writes:
// every record is read until two reads agree, so a record the writer is
// rewriting at that moment is never taken half old, half new.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "avrecord_lib/index_records.h"
#include "avrecord_lib/record_file.h"
#include "common/file_guard.h"

// One recording section with what tells its lap of the media file from the
// next one (the file record's start time).
struct CatalogSection {
    uint32_t u32FileNo;
    uint32_t u32FileStart;  // m_u32StartTime of the file record it was read under
    uint32_t u32KeyFirst;   // its first entry in the file's key-frame table
    SectionInfoHead stSection;
};

struct CardCatalog {
    RecordConfigInfo stHeader;
    std::vector<CatalogSection> sections;  // with frames, oldest start first
};

// Order of sections on the card: by start time, then file and number.
bool CatalogBefore(const CatalogSection &a, const CatalogSection &b);

// Reads length bytes at offset until two reads agree. 0, or -1 when a read
// fails or the bytes keep changing.
int CatalogStableRead(int fd, uint32_t offset, void *buf, uint32_t length);

// The header, stable and checked. 0 or -1.
int CatalogReadHeader(int indexFd, RecordConfigInfo *info);
// File record of fileNo, stable. 0 or -1 (also for a record without magic).
int CatalogReadFile(int indexFd, uint32_t fileNo, FileInfoHead *file);
// Section record of (fileNo, sectionNo), stable. 0 or -1.
int CatalogReadSection(int indexFd, uint32_t fileNo, uint32_t sectionNo, SectionInfoHead *section);

// Every section of the card that holds frames. 0, or -1 when the index
// cannot be opened or its header is not valid.
int CatalogLoad(const std::string &cardDir, CardCatalog *catalog);

// The first section after `after` in card order; nullptr when none.
const CatalogSection *CatalogNext(const CardCatalog &catalog, const CatalogSection &after);

// The section holding second t, or else the first one that starts after it;
// nullptr when none.
const CatalogSection *CatalogAt(const CardCatalog &catalog, uint32_t t);

// How the recorder's next write may meet the bytes [begin, end) of a
// section's media file: the file is overwritten from its start when the
// writer laps onto it. kLapped: the file was started over (its file record
// belongs to a newer lap); kAtRisk: the file before it is full and the
// writer's next frame may land at the start of this file, and the range lies
// within that frame's reach; kIntact otherwise. -1 when the index cannot be
// read.
enum class LapState { kIntact, kAtRisk, kLapped };
int CatalogLapState(int indexFd, const CatalogSection &section, uint32_t begin, LapState *state);

// Whether the section is the one the recorder is extending (the newest of
// the current media file, in the same lap).
bool CatalogIsCurrent(int indexFd, const CatalogSection &section);

// A card file open for reading, closed on every way out.
class CatalogFile : public FileGuard {
public:
    explicit CatalogFile(const std::string &path) : FileGuard(AVFileOpenGuarded(path)) {}
};

// The card's path of a file name.
std::string CatalogPath(const std::string &cardDir, const char *name);
std::string CatalogMediaPath(const std::string &cardDir, uint32_t fileNo);

// One alarm event of the card's event file.
struct CatalogAlarm {
    uint32_t u32Start;
    uint32_t u32End;  // 0 while the event goes on
    uint8_t u8Type;   // alarm type
};

// The alarm events of the media files that hold recordings, oldest first.
// 0, or -1 when the event file cannot be opened.
int CatalogLoadAlarms(const std::string &cardDir, const CardCatalog &catalog,
                      std::vector<CatalogAlarm> *alarms);
