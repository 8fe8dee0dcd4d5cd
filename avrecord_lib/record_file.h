// Record file access: descriptor operations with fixed return conventions
// over the FileIo() layer. A transfer of fewer bytes than asked is a failure
// (-1), exactly like an error; a negative descriptor is refused everywhere.
#pragma once

#include <cstdint>
#include <string>

#include "common/file_guard.h"

// Open modes: mode & 3 selects the access.
inline constexpr int kAVFileModeRead = 1;       // read-only, existing file (0 works too)
inline constexpr int kAVFileModeWrite = 2;      // write-only, created if missing
inline constexpr int kAVFileModeReadWrite = 3;  // read-write, created if missing

// Whence values of AVFileSeek.
inline constexpr int kAVFileSeekSet = 0;
inline constexpr int kAVFileSeekCur = 1;
inline constexpr int kAVFileSeekEnd = 2;

// Opens path with the flags of mode, close-on-exec; the descriptor or -1.
int AVFileOpen(const char *path, int mode);
// -1 for a negative descriptor, else the close result.
int AVFileClose(int fd);
// Opens path read-only (AVFileOpen); the guard closes it.
FileGuard AVFileOpenGuarded(const std::string &path);
// The new position (low 32 bits), -1 for a negative descriptor or a whence
// other than 0, 1, 2.
int AVFileSeek(int fd, int32_t offset, int whence);
// length when exactly length bytes moved, else -1.
int AVFileRead(int fd, void *buf, uint32_t length);
int AVFileWrite(int fd, const void *buf, uint32_t length);

// Flushes the file's data to the device (fdatasync); -1 for a negative
// descriptor, else the flush result.
int AVFileDataSync(int fd);

// Second names of open and close; they forward unchanged.
int AV_RecordFileOpen(const char *path, int mode);
int AV_RecordFileClose(int fd);

// Seeks to offset, reads exactly length bytes; returns the offset (the seek
// result), -1 on a failed seek or a short read.
int AV_RecordStreamInfoRead(int fd, uint32_t offset, void *buf, uint32_t length);
// Seeks to offset and writes; the AVFileWrite result, -1 when the seek failed.
int AV_RecordStreamInfoWrite(int fd, uint32_t offset, const void *buf, uint32_t length);
// The same at the key-frame table of a media file (0xFC00000 + offset).
int AV_RecordKeyFrameInfoWrite(int fd, uint32_t offset, const void *buf, uint32_t length);
// Closes a media descriptor with a log line; the close result.
int AV_RecordStreamFileClose(int fd);
