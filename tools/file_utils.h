// Directory and file helpers of the recording tools.
#pragma once

#include <cstdint>

// Creates every missing directory of path (mode 0755); the last component
// only when path ends with '/'. 0 or -1.
int FileUtilsCreateMultiFolder(const char *path);

// Deletes path and everything below it (symbolic links are removed, never
// followed). 0 or -1.
int FileUtilsDeleteFolder(const char *path);

// Total, free and used space of the file system holding path, in KiB.
int FileUtilsGetStorageInfo(const char *path, uint32_t *totalKiB, uint32_t *freeKiB, uint32_t *usedKiB);

// Creates an empty file. 0, or -1 on a null path or failure.
int FileUtilsCreateFile(const char *path);
// 0 when path exists, else -1 (also for a null path).
int FileUtilsIsExist(const char *path);
// 0 for a directory, 1 for anything else, -1 when path cannot be stat'ed.
int FileUtilsIsFolder(const char *path);
// True when path is a directory holding nothing but "." and "..".
bool FileUtilsIsEmptyFolder(const char *path);
// True for the directory entries "." and "..".
bool FileUtilsIsDotEntry(const char *name);
// Size in bytes, 0 when path cannot be stat'ed.
uint32_t FileUtilsGetFileSize(const char *path);
