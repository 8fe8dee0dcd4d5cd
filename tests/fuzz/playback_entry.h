// Fuzz entry: the bounded playback reader walking arbitrary media bytes,
// with and without a data end, from the start and from an offset the input
// names.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "avrecord_lib/playback_reader.h"

namespace fuzz {

inline constexpr uint32_t kPlaybackBufferSize = 1 << 16;
inline constexpr int kPlaybackMaxFrames = 1000;

inline void WalkMedia(int fd, uint32_t from, uint32_t dataEnd, std::vector<uint8_t> &buf) {
    uint32_t at = from;
    for (int i = 0; i < kPlaybackMaxFrames; ++i) {
        uint32_t next = at;
        int type;
        uint32_t length;
        uint32_t wall;
        uint32_t pts;
        if (libAVRecordPlayBackGetPSFrameBounded(fd, &next, dataEnd, &type, buf.data(),
                                                 static_cast<uint32_t>(buf.size()), &length, &wall,
                                                 &pts) != 0 ||
            next <= at)
            return;
        if (length > buf.size()) __builtin_trap();  // reported more than the buffer holds
        at = next;
    }
}

inline int FuzzPlaybackReader(const uint8_t *data, size_t size) {
    static std::vector<uint8_t> buf(kPlaybackBufferSize);
    int fd = memfd_create("media", MFD_CLOEXEC);
    if (fd < 0) return 0;
    if (size == 0 || write(fd, data, size) == static_cast<ssize_t>(size)) {
        uint32_t from = 0;
        if (size >= sizeof from) memcpy(&from, data, sizeof from);
        WalkMedia(fd, 0, 0, buf);
        WalkMedia(fd, 0, static_cast<uint32_t>(size), buf);
        WalkMedia(fd, from % (static_cast<uint32_t>(size) + 1), static_cast<uint32_t>(size), buf);
        libAVRecordPlayBackIsKeyFrame(fd, 0);
    }
    close(fd);
    return 0;
}

}  // namespace fuzz
