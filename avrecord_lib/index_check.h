// Reading a card's whole index and checking it against the media files: the
// header, every file record in use, its section records and its key-frame
// entries, and the alarm-event slots. Used by the card tool and by the
// reliability tests.
#pragma once

#include <cstdint>
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

// One inconsistency found by the check.
struct IndexProblem {
    int64_t fileNo;      // media file, -1 for the header
    uint32_t sectionNo;  // section, 0 when the problem is not in a section
    std::string text;    // what is wrong
};

// Checks the card's index; the problems found (none: consistent). -1 when
// the index cannot be read at all (reported as the first problem).
int CheckCardIndex(const std::string &cardDir, std::vector<IndexProblem> *problems);

// "file 3 section 2: ..." / "header: ...".
std::string FormatIndexProblem(const IndexProblem &problem);
