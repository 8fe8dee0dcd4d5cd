// The result list of the recording searches: a fixed block of 2048 entries
// and a count, filled in the caller's memory.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int MAX_FILE_NUMBER = 2048;
inline constexpr int kFileListNameSize = 128;

// One recording: a section or alarm event of the index ("hi%06d_%06d.mp4",
// "he%06d_%06d.mp4"), or a file of a directory tree.
struct FileListEntry {
    char szFileName[kFileListNameSize];  // NUL-terminated name
    uint32_t u32FrameRate;               // frames per second (index searches)
    uint32_t u32FrameCount;              // video frames (index searches)
    uint32_t u32FileSize;                // bytes
    uint32_t u32StartTime;               // UTC seconds
    uint32_t u32EndTime;                 // UTC seconds
};
static_assert(sizeof(FileListEntry) == 148);
static_assert(offsetof(FileListEntry, u32FrameRate) == 128);
static_assert(offsetof(FileListEntry, u32StartTime) == 140);
static_assert(offsetof(FileListEntry, u32EndTime) == 144);

struct FileListInfo {
    FileListEntry stFileList[MAX_FILE_NUMBER];  // entries 0 .. s32FileNum - 1
    int32_t s32FileNum;                         // entries in use
};
static_assert(sizeof(FileListInfo) == 303108);
static_assert(offsetof(FileListInfo, s32FileNum) == 303104);

// Appends an entry with name and times (other fields zero); nullptr when
// the list is full.
FileListEntry *FileListAdd(FileListInfo *list, const char *name, uint32_t startTime, uint32_t endTime);
