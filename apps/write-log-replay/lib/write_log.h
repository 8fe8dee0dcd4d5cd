// The log that the kernel's write-logging device-mapper target ("log-writes")
// keeps of every write that reaches the device under it, read back so that
// the device's content can be rebuilt as it stood after any logged write.
//
// Log device layout, in units of the super block's sector size:
//   sector 0        super block (magic, version, entry count, sector size);
//   sector 1...     the entries in the order the writes completed. Each is
//                   one header sector (WriteLogEntry, then for a mark its
//                   text) followed by sectorCount data sectors (none for a
//                   discard, which only names the range it drops).
// The entry count in the super block is brought up to date on every mark and
// every FUA write, and when the target is removed; entries beyond it may be
// half written and are not read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/byte_order.h"

inline constexpr uint64_t kWriteLogMagic = 0x6a736677736872;  // "rhswfsj"
inline constexpr uint64_t kWriteLogVersion = 1;
inline constexpr uint32_t kWriteLogMinSectorSize = 512;
inline constexpr uint32_t kWriteLogMaxSectorSize = 65536;
// Largest single write taken from a log (the kernel splits bigger ones).
inline constexpr uint64_t kWriteLogMaxWriteBytes = 64u << 20;

// Entry flags.
inline constexpr uint64_t kWriteLogFlush = 1 << 0;     // all earlier writes are durable
inline constexpr uint64_t kWriteLogFua = 1 << 1;       // this write is durable
inline constexpr uint64_t kWriteLogDiscard = 1 << 2;   // the range is dropped
inline constexpr uint64_t kWriteLogMark = 1 << 3;      // a named point, no write
inline constexpr uint64_t kWriteLogMetadata = 1 << 4;  // the file system's own metadata

struct __attribute__((packed)) WriteLogSuper {
    uint64_t magic;       // kWriteLogMagic
    uint64_t version;     // kWriteLogVersion
    uint64_t entryCount;  // entries logged so far
    uint32_t sectorSize;  // unit of every sector number and count in the log
};
static_assert(sizeof(WriteLogSuper) == 28);
static_assert(offsetof(WriteLogSuper, entryCount) == 16);
static_assert(offsetof(WriteLogSuper, sectorSize) == 24);

struct __attribute__((packed)) WriteLogEntry {
    uint64_t sector;       // first sector written on the device
    uint64_t sectorCount;  // sectors written (or discarded)
    uint64_t flags;        // kWriteLog* flags
    uint64_t dataLength;   // length of a mark's text, else 0
};
static_assert(sizeof(WriteLogEntry) == 32);
static_assert(offsetof(WriteLogEntry, flags) == 16);

// One entry as read from the log.
struct WriteLogRecord {
    uint64_t number = 0;  // 0-based position in the log
    WriteLogEntry entry{};
    std::string mark;           // text of a mark entry
    std::vector<uint8_t> data;  // the written sectors
};

// True when replaying the record changes the device's content.
bool WriteLogChangesContent(const WriteLogRecord &record);

// "write", "flush", "fua write", "discard", "mark NAME", ... for listings.
std::string WriteLogDescribe(const WriteLogRecord &record);

// Reads a log file entry by entry.
class WriteLogReader {
public:
    WriteLogReader() = default;
    ~WriteLogReader();
    WriteLogReader(const WriteLogReader &) = delete;
    WriteLogReader &operator=(const WriteLogReader &) = delete;

    // Opens the log and decodes its super block. 0, or -1 with *error set.
    int Open(const std::string &path, std::string *error);
    const WriteLogSuper &Super() const { return super_; }
    // The next entry: 1 when read, 0 after the last one, -1 with *error set.
    int Next(WriteLogRecord *record, std::string *error);

private:
    int fd_ = -1;
    WriteLogSuper super_{};
    uint64_t next_ = 0;        // number of the next entry
    uint64_t nextSector_ = 1;  // where it starts in the log
};

// The files of the device's file system, each one contiguous run of bytes,
// kept as plain files in a folder beside the image: every replayed write
// that falls into a file lands in its copy as well, so programs that read a
// card folder see the card of each state without mounting the image.
class WriteLogMirror {
public:
    WriteLogMirror() = default;
    ~WriteLogMirror();
    WriteLogMirror(const WriteLogMirror &) = delete;
    WriteLogMirror &operator=(const WriteLogMirror &) = delete;

    // extents: one "NAME OFFSET SIZE" line per file (byte offset in the
    // image). Copies each file's bytes out of the image into folder/NAME
    // (holes stay holes). 0, or -1 with *error set.
    int Load(const std::string &extents, int imageFd, const std::string &folder, std::string *error);
    // Puts length bytes written at the image's byte offset into the copies
    // (data null: zeros). 0, or -1 with *error set.
    int Apply(uint64_t offset, const uint8_t *data, uint64_t length, std::string *error);

private:
    struct File {
        std::string name;
        uint64_t offset;
        uint64_t size;
        int fd;
    };
    std::vector<File> files_;
};

struct WriteLogReplayOptions {
    std::string logPath;
    std::string imagePath;      // the device's content when logging began; updated in place
    uint64_t every = 1;         // a state after every Nth content-changing entry (and the last)
    std::string mirrorExtents;  // with mirrorFolder: see WriteLogMirror
    std::string mirrorFolder;
};

// A state reached by the replay.
struct WriteLogState {
    uint64_t number;  // 1-based
    uint64_t entry;   // the log entry just applied
    uint64_t writes;  // content-changing entries applied so far
};

struct WriteLogReplayResult {
    uint64_t entries = 0;
    uint64_t writes = 0;
    uint64_t states = 0;
    uint64_t failedStates = 0;
};

// Replays the log onto the image, calling check at every state; check
// returns false for a state that fails. 0 when the whole log was replayed
// (failed states or not), -1 with *error set when the log, the image or the
// mirror could not be read or written.
int ReplayWriteLog(const WriteLogReplayOptions &options,
                   const std::function<bool(const WriteLogState &)> &check, WriteLogReplayResult *result,
                   std::string *error);
