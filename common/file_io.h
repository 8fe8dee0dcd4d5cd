// The one replaceable layer under every card access of the system: the
// record-file operations, the index code, the writer, the readers and the
// formatter all reach the file system through FileIo(). Production uses the
// POSIX calls; fault and crash tests install their own table.
#pragma once

#include <sys/types.h>

#include <cstdint>

struct FileIoOps {
    int (*open)(const char *path, int flags, mode_t mode);
    int (*close)(int fd);
    int64_t (*seek)(int fd, int64_t offset, int whence);
    ssize_t (*read)(int fd, void *buf, size_t length);
    ssize_t (*write)(int fd, const void *buf, size_t length);
    int (*fsync)(int fd);
    int (*fdatasync)(int fd);
    int (*setCloseOnExec)(int fd);
    int (*rename)(const char *from, const char *to);
    // Drops the cached copies of the file's data, so the next reads come
    // from the card itself (a hint: 0 also where there is nothing to drop).
    int (*dropCache)(int fd);
};

// The table in force.
const FileIoOps &FileIo();

// The POSIX table.
const FileIoOps &PosixFileIo();

// Installs a table (nullptr restores the POSIX one). Not thread-safe: tests
// swap it while no other thread does card I/O.
void SetFileIo(const FileIoOps *ops);

// For tables that serve a file from elsewhere (an image, memory): where a
// seek of `offset` from `whence` lands in a file of `size` bytes read at
// `position`; -1 with errno EINVAL for another whence or a place before the
// start.
int64_t FileSeekTarget(int64_t position, int64_t size, int64_t offset, int whence);
