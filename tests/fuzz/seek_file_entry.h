// Fuzz entry: the recording search and the index check over an arbitrary
// index000.bin and event000.bin, built from card patches (target bit 0:
// 0 the index, 1 the event file).
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "avrecord_lib/index_records.h"
#include "card_reader/index_check.h"
#include "common/platform_paths.h"
#include "fuzz/fuzz_support.h"
#include "tools/seek_file.h"

namespace fuzz {

// The card directory under a scratch root the platform paths point to.
inline const std::string &FuzzCardDir() {
    static const std::string dir = [] {
        setenv("AVRECORD_ROOT", ScratchDir(), 1);
        std::string card = PlatformPath(kCardMountPoint);
        return MakeDirectories(card) ? card : std::string();
    }();
    return dir;
}

inline int FuzzSeekFile(const uint8_t *data, size_t size) {
    const std::string &card = FuzzCardDir();
    if (card.empty()) return 0;
    const std::string files[2] = {card + kIndexFileName, card + kEventFileName};
    const uint64_t sizes[2] = {kIndexFileSize, kEventFileSize};
    for (int i = 0; i < 2; ++i)
        if (!WriteWholeFile(files[i], nullptr, 0, static_cast<off_t>(sizes[i]))) return 0;
    Patch patch;
    while (NextPatch(&data, &size, &patch))
        PatchFile(files[patch.target & 1], sizes[patch.target & 1], patch);

    auto list = std::make_unique<FileListInfo>();
    for (uint16_t type : {kSeekTypeNormal, kSeekTypeAlarm1}) {  // alarm types share one walk
        if (SeekFile(type, 0, 0xFFFFFFFFu, list.get()) == 0 &&
            (list->s32FileNum < 0 || list->s32FileNum > MAX_FILE_NUMBER))
            __builtin_trap();
    }
    std::vector<IndexProblem> problems;
    CheckCardIndex(card, &problems);
    return 0;
}

}  // namespace fuzz
