// Helpers of the fuzz entries: a scratch directory of the process, whole
// file writes, and the card-patch input format.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace fuzz {

// Name of the scratch directory; a plain array, as it is still needed by
// the exit handler that removes the directory.
inline char g_scratchDir[64] = "";

// Removes the scratch directory and what the entries left in it.
inline void RemoveScratchDir() {
    if (strstr(g_scratchDir, "/avr-fuzz-") == nullptr) return;
    std::string command = std::string("rm -rf '") + g_scratchDir + "'";
    if (system(command.c_str()) != 0) {
        // Left for the system's temporary-file cleaning.
    }
}

// A scratch directory of this process, made on first use; in memory where
// the system has a tmpfs, as every input is written to a file.
inline const char *ScratchDir() {
    if (g_scratchDir[0] != '\0') return g_scratchDir;
    for (const char *base : {"/dev/shm", "/tmp"}) {
        snprintf(g_scratchDir, sizeof g_scratchDir, "%s/avr-fuzz-XXXXXX", base);
        if (mkdtemp(g_scratchDir) != nullptr) {
            atexit(RemoveScratchDir);
            return g_scratchDir;
        }
    }
    snprintf(g_scratchDir, sizeof g_scratchDir, "/tmp");
    return g_scratchDir;
}

// Makes path and its parents; true when it exists afterwards.
inline bool MakeDirectories(const std::string &path) {
    for (size_t i = 1; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/') mkdir(path.substr(0, i).c_str(), 0755);
    }
    return access(path.c_str(), F_OK) == 0;
}

// Replaces the file with the bytes; with `size` > 0 it is then extended
// (sparse) to that size.
inline bool WriteWholeFile(const std::string &path, const uint8_t *data, size_t length, off_t size = 0) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = length == 0 || write(fd, data, length) == static_cast<ssize_t>(length);
    if (ok && size > 0) ok = ftruncate(fd, size) == 0;
    close(fd);
    return ok;
}

// Card patches: records of { u8 target, u32 offset, u16 length, bytes }
// (little-endian) laid onto sparse files, so that a short input can place
// index records at their real offsets deep inside large files.
struct Patch {
    uint8_t target;       // which file
    uint32_t offset;      // where its bytes go
    const uint8_t *data;  // the bytes
    size_t length;        // how many
};
inline constexpr size_t kPatchHeaderSize = 7;

// Takes the next patch off the input; false at its end.
inline bool NextPatch(const uint8_t **data, size_t *size, Patch *patch) {
    if (*size < kPatchHeaderSize) return false;
    const uint8_t *p = *data;
    patch->target = p[0];
    memcpy(&patch->offset, p + 1, sizeof patch->offset);
    uint16_t length;
    memcpy(&length, p + 5, sizeof length);
    size_t left = *size - kPatchHeaderSize;
    patch->data = p + kPatchHeaderSize;
    patch->length = length < left ? length : left;
    *data = patch->data + patch->length;
    *size = left - patch->length;
    return true;
}

inline void PatchFile(const std::string &path, uint64_t fileSize, const Patch &patch) {
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return;
    uint64_t at = patch.offset % fileSize;
    size_t length = static_cast<size_t>(std::min<uint64_t>(patch.length, fileSize - at));
    if (pwrite(fd, patch.data, length, static_cast<off_t>(at)) < 0) {
        // A patch that does not land is simply not there.
    }
    close(fd);
}

}  // namespace fuzz
