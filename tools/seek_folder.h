// Recording search over a directory tree of ordinary files: one directory
// per day "YYYY-MM-DD", one per hour "HH", files named by their local start
// time "YYYY-MM-DD-HH-MM-SS.<ext>". Also the plain directory listings and
// the recursive walk of the FileUtils family.
#pragma once

#include <cstdint>

#include "tools/file_list.h"

// A file named up to this many seconds before the range start still counts.
inline constexpr uint32_t kFolderSeekTolerance = 9;
// Files of the tree are listed as lasting this long.
inline constexpr uint32_t kFolderFileDuration = 10;

// Lists the files of the start day's hour directories from the start's hour
// to the end's hour (UTC): each file named inside the range. 0, or -1 for a
// null root or list.
int SeekFileEx(const char *rootDir, uint32_t startTime, uint32_t endTime, FileListInfo *pFileListInfo);

// Adds the files of one directory named inside [start - 9, end] to the list
// from entry *count on; *count and the list's count become the new total.
// 0, or -1 when an argument is null or the directory cannot be opened.
int SeekCurrentFolderFile(const char *dir, uint32_t startTime, uint32_t endTime, FileListInfo *pFileListInfo,
                          int *count);

// Lists the files of one directory (list cleared first) with the time their
// names give as start time. 0 or -1.
int FileUtilsCurrentFolderFileSeek(const char *dir, FileListInfo *pFileListInfo);

// Lists the sub-directories of one directory as "dir/name" paths with the
// time their names give. 0 or -1.
int FileUtilsCurrentFolderSubFolderSeek(const char *dir, FileListInfo *pFileListInfo);

// Visitor of SeekFolder: (directory path, entry name); -1 ends the walk.
using SeekFolderVisitor = int (*)(const char *dir, const char *name);

// Walks dir recursively, handing every entry to visitor (may be null).
// Returns the number of entries read in dir, or -1 when the directory
// cannot be opened or the visitor ended the walk.
int SeekFolder(const char *dir, int depth, SeekFolderVisitor visitor);

// The time a name gives: "YYYY-MM-DD-HH-MM-SS." as local time, or an
// all-digit name as that many minutes; 0 for anything else.
uint32_t FileUtilsGetFileLastModifyTime(const char *name);
