// Rebuilding a card's index from what its media files hold. Every media
// file's program stream is walked from its start: a record file header
// opens a section, the frames behind it (their pack times, key frames,
// stream maps and time-stamp counter) give the section's records and the
// key-frame entries the frame writer wrote for them. The index's own
// records are kept wherever they agree with the data; every record that
// differs is named with the reason. The scan reads through the file layer,
// so a card directory and an attached image are handled alike, and it holds
// one frame at a time: memory does not grow with the card.
//
// A media file overwritten part-way by the next lap of the circular
// recording holds the new lap's sections from offset 0 and the older lap's
// frames behind them. The rebuilt index describes only the new lap, as the
// writer would have; the older frames are kept apart as remnants, which the
// read-only view offers as extra sections behind the file's own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "avrecord_lib/index_records.h"
#include "card_reader/index_check.h"

struct RecoveredFile {
    FileInfoHead record{};                   // magic 0: the writer left nothing here
    std::vector<SectionInfoHead> sections;   // slots 1.. as the index holds them
    std::vector<KeyFrameEntry> keyFrames;    // the file's key-frame table
    std::vector<SectionInfoHead> remnants;   // sections of an earlier lap (view only)
    std::vector<KeyFrameEntry> remnantKeys;  // their entries, behind keyFrames
    uint64_t frames = 0;                     // frames (video and audio) of the sections
    uint64_t remnantFrames = 0;              // frames of the remnants
    uint64_t unreadableBytes = 0;            // stream bytes no frame could be read from
    bool indexed = false;                    // the old index had a record of this file
};

struct CardRecovery {
    RecordConfigInfo header{};
    std::vector<RecoveredFile> files;                  // media files 0 .. sum - 1
    bool indexReadable = false;                        // the old index's header passed its check
    bool eventsReadable = false;                       // event000.bin could be read
    std::vector<AlarmEventInfo> eventSlots;            // per media file (magic 0: none)
    std::vector<std::vector<AlarmEventEntry>> events;  // per media file
    std::vector<bool> eventSlotDamaged;                // per media file: slot to be cleared
    std::vector<IndexProblem> changes;                 // each record changed, and why
    std::vector<IndexProblem> notes;                   // what could not be rebuilt
};

// Called after each media file is scanned (file number, files in all).
typedef void (*RecoveryProgress)(uint32_t fileNo, uint32_t fileSum);

// Scans the card directory (ending with '/') and rebuilds its index in
// memory. Nothing is written. configValue goes into a header that has to be
// built anew (the formatter stores the card's size in MiB there; the field
// is never interpreted). 0, or -1 with the reason when the card holds no
// media files.
int RecoverCard(const std::string &cardDir, CardRecovery *recovery, std::string *why,
                uint32_t configValue = 0, RecoveryProgress progress = nullptr);

// The bytes that differ from the card, per card file: where and what.
struct FilePatch {
    uint32_t offset;
    std::vector<uint8_t> bytes;
};
struct CardFilePatches {
    std::string name;                // "index000.bin", "hi000003.mp4", ...
    uint32_t size;                   // the size the file must have at least
    std::vector<FilePatch> patches;  // ascending, not overlapping
};

// The records to put on the card: the index header, file and section
// records, the event slots and lists, and the key-frame tables (which lie
// behind the stream data of the media files). With remnants, the older
// laps' sections and entries follow each file's own (the read-only view).
std::vector<CardFilePatches> RecoveryPatches(const CardRecovery &recovery, bool withRemnants);

// True when section sectionNo of file fileNo is a remnant in the view.
bool RecoveryIsRemnant(const CardRecovery &recovery, uint32_t fileNo, uint32_t sectionNo);
