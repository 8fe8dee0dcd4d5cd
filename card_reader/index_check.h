// Reading a card's whole index and checking it against the media files: the
// header, every file record in use, its section records and its key-frame
// entries, and the alarm-event slots. Used by the card tool and by the
// reliability tests.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "avrecord_lib/index_records.h"

// Path of media file fileNo in the card directory (ending with '/').
std::string CardMediaFilePath(const std::string &cardDir, uint32_t fileNo);
// Size of the file at path, -1 when it cannot be opened.
int64_t CardFileSize(const std::string &path);

// The header and the file records 0 .. m_u32RecordFileSum - 1 of a card.
struct CardIndex {
    RecordConfigInfo header;          // header
    std::vector<FileInfoHead> files;  // files
};

// Reads the index of the card directory (ending with '/'). 0, or -1 with a
// one-line reason when the index cannot be opened or its header is invalid.
int LoadCardIndex(const std::string &cardDir, CardIndex *index, std::string *reason);

// Why a section record is not the one the writer leaves in slot `slot`
// (counted from 1) of media file fileNo: "no section record (magic ...)",
// "numbered N", "names file N"; empty when its magic, number and file are
// right. The check reports it, the recovery keeps an old record only when
// it is empty, and the read commands' warning names it.
std::string SectionRecordDamage(const SectionInfoHead &section, uint32_t fileNo, uint32_t slot);

// One inconsistency found by the check.
struct IndexProblem {
    int64_t fileNo;      // media file, -1 for the header
    uint32_t sectionNo;  // section, 0 when the problem is not in a section
    std::string text;    // what is wrong
};

// Checks the card's index; the problems found (none: consistent). -1 when
// the index cannot be read at all (reported as the first problem).
int CheckCardIndex(const std::string &cardDir, std::vector<IndexProblem> *problems);

// Walks the frames of one section with the bounded playback reader, from
// the first pack behind the record file header to the end of the section's
// data. Where a packet cannot be read it picks up again at the section's
// next key frame whose entry (entries firstEntry .. firstEntry +
// m_u32KeyFrameSum - 1 of the file) is valid, as a player resynchronises.
// onFrame gets every frame read (its bytes in buf); onGap the offset where
// reading broke off and where it picked up again (0: not before the end).
struct SectionFrameWalk {
    std::function<void(const uint8_t *frame, uint32_t length)> onFrame;  // onFrame
    std::function<void(uint32_t brokeOff, uint32_t resumed)> onGap;      // onGap
};
void WalkSectionFrames(int mediaFd, const SectionInfoHead &section, uint32_t firstEntry, uint8_t *buf,
                       uint32_t bufSize, const SectionFrameWalk &walk);

// Calls fn for every section record in use of the card's index, with the
// media file's descriptor (read-only) and the section's first key-frame
// entry number. 0, or -1 when the index cannot be read.
int ForEachCardSection(
    const std::string &cardDir,
    const std::function<void(int mediaFd, const SectionInfoHead &section, uint32_t firstEntry)> &fn);

// The deep check: every section's frames walked; one problem for each place
// where reading breaks off ("frame at ... unreadable"). Reads every byte of
// recorded data. 0, or -1 when the index cannot be read.
int CheckCardFrames(const std::string &cardDir, std::vector<IndexProblem> *problems);

// "file 3 section 2: ..." / "header: ...".
std::string FormatIndexProblem(const IndexProblem &problem);
