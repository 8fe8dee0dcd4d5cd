// Fuzz entry: the card image reader (boot sector, root directory, cluster
// runs) and the read-only file layer over it, on a card image from the
// formatter with the input's patches laid over it. A patch's target picks
// the region its offset falls in (0 the reserved sectors, 1 the first FAT,
// 2 the root directory's first cluster, 3 anywhere); the bytes it covered
// are put back after the run, so every input starts from the same card.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "card_reader/card_image_io.h"
#include "card_reader/index_check.h"
#include "common/file_io.h"
#include "fuzz/fuzz_support.h"
#include "mkfs/fat32_layout.h"
#include "mkfs/mkfs_vfat.h"

namespace fuzz {

inline constexpr uint64_t kImageFuzzBytes = 1ull << 30;  // the smallest card the formatter makes
inline constexpr uint32_t kImageFuzzRegions = 4;
inline constexpr size_t kImageFuzzProbe = 512;  // bytes read at each end of a file

struct FuzzCard {
    std::string path;
    uint64_t regionStart[kImageFuzzRegions];
    uint64_t regionSize[kImageFuzzRegions];
};

// Formats the card with the formatter's layout report kept off stderr.
inline int FormatQuietly(const std::string &path, Fat32Layout *layout) {
    MkfsCapacityInfo capacity{};
    fflush(stderr);
    int saved = dup(STDERR_FILENO);
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, STDERR_FILENO);
        close(null);
    }
    int formatted = MkfsVfatFormat(path.c_str(), &capacity, 0, MkfsOptions{nullptr, nullptr, 0}, layout);
    fflush(stderr);
    if (saved >= 0) {
        dup2(saved, STDERR_FILENO);
        close(saved);
    }
    return formatted;
}

// The formatted card, made once per process; empty path when it failed.
inline const FuzzCard &FuzzCardImage() {
    static const FuzzCard card = [] {
        FuzzCard c{};
        std::string path = std::string(ScratchDir()) + "/card.img";
        Fat32Layout layout{};
        if (!WriteWholeFile(path, nullptr, 0, static_cast<off_t>(kImageFuzzBytes)) ||
            FormatQuietly(path, &layout) != 0)
            return c;
        uint64_t sector = layout.bytesPerSector;
        c.regionStart[0] = 0;
        c.regionSize[0] = kFat32ReservedSectors * sector;
        c.regionStart[1] = c.regionSize[0];
        c.regionSize[1] = uint64_t{layout.fatSectors} * sector;
        c.regionStart[2] = Fat32ClusterOffset(layout, kFat32RootCluster);
        c.regionSize[2] = layout.ClusterBytes();
        c.regionStart[3] = 0;
        c.regionSize[3] = kImageFuzzBytes;
        c.path = path;
        return c;
    }();
    return card;
}

// Reads both ends of a card file through the layer.
inline void ProbeCardFile(const std::string &path) {
    const FileIoOps &io = FileIo();
    int fd = io.open(path.c_str(), O_RDONLY, 0);
    if (fd < 0) return;
    std::vector<uint8_t> buf(kImageFuzzProbe);
    if (io.read(fd, buf.data(), buf.size()) > static_cast<ssize_t>(buf.size())) __builtin_trap();
    int64_t end = io.seek(fd, 0, SEEK_END);
    if (end >= static_cast<int64_t>(kImageFuzzProbe) &&
        io.seek(fd, -static_cast<int64_t>(kImageFuzzProbe), SEEK_END) >= 0 &&
        io.read(fd, buf.data(), buf.size()) > static_cast<ssize_t>(buf.size()))
        __builtin_trap();
    io.close(fd);
}

inline int FuzzCardImage(const uint8_t *data, size_t size) {
    const FuzzCard &card = FuzzCardImage();
    if (card.path.empty()) return 0;
    int fd = open(card.path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return 0;
    struct Saved {
        uint64_t at;
        std::string bytes;
    };
    std::vector<Saved> saved;
    Patch patch;
    while (NextPatch(&data, &size, &patch)) {
        uint32_t region = patch.target % kImageFuzzRegions;
        uint64_t at = card.regionStart[region] + patch.offset % card.regionSize[region];
        size_t length = static_cast<size_t>(std::min<uint64_t>(patch.length, kImageFuzzBytes - at));
        Saved s{at, std::string(length, '\0')};
        if (pread(fd, s.bytes.data(), length, static_cast<off_t>(at)) != static_cast<ssize_t>(length) ||
            pwrite(fd, patch.data, length, static_cast<off_t>(at)) != static_cast<ssize_t>(length))
            break;
        saved.push_back(std::move(s));
    }
    std::string cardDir, why;
    if (CardImageAttach(card.path, &cardDir, &why) == 0) {
        for (const char *name :
             {"index000.bin", "index001.bin", "event000.bin", "keyframe.bin", "hi000000.mp4"})
            ProbeCardFile(cardDir + name);
        CardIndex index;
        LoadCardIndex(cardDir, &index, &why);
        CardImageDetach();
    }
    // Put the card back, last patch first (patches may overlap).
    for (auto it = saved.rbegin(); it != saved.rend(); ++it) {
        if (pwrite(fd, it->bytes.data(), it->bytes.size(), static_cast<off_t>(it->at)) < 0) break;
    }
    close(fd);
    return 0;
}

}  // namespace fuzz
