// "avrecord-card prealloc DIR --media N [--pictures M]": the card file set
// as sparse files in a plain directory, with a fresh index header.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "avrecord_lib/index_records.h"
#include "avrecord_lib/record_config.h"
#include "card_command.h"
#include "mkfs/card_file_set.h"
#include "mkfs/card_prealloc.h"

namespace {

bool ParseCount(const std::string &text, uint32_t limit, uint32_t *count) {
    if (text.empty() || text[0] == '-') return false;
    char *end = nullptr;
    unsigned long long value = strtoull(text.c_str(), &end, 10);
    if (*end != '\0' || value > limit) return false;
    *count = static_cast<uint32_t>(value);
    return true;
}

int RunPrealloc(const CardArgs &args) {
    if (args.positional.size() != 1) return CardFail(args, kExitUsage, "needs one DIR");
    const std::string &dir = args.positional[0];
    uint32_t media = 0;
    uint32_t pictures = 0;
    if (!args.Has("--media") || !ParseCount(args.Get("--media"), kCardMaxMediaFiles, &media)) {
        return CardFail(args, kExitUsage, "--media takes a count from 0 to %u", kCardMaxMediaFiles);
    }
    constexpr uint32_t kMaxPictures = 999999;
    if (args.Has("--pictures") && !ParseCount(args.Get("--pictures"), kMaxPictures, &pictures)) {
        return CardFail(args, kExitUsage, "--pictures takes a count from 0 to %u", kMaxPictures);
    }
    if (CardPreallocate(dir.c_str(), media, pictures) != 0) {
        return CardFail(args, kExitCardProblem, "could not prepare the file set in '%s'", dir.c_str());
    }
    MkfsCapacityInfo capacity;
    CardDescribeFileSet(pictures, media, &capacity);
    std::string index = dir + (dir.back() == '/' ? "" : "/") + kIndexFileName;
    if (AV_RecordFileConfigSet(index.c_str(), &capacity) != 0) {
        return CardFail(args, kExitCardProblem, "could not write the index header to '%s'", index.c_str());
    }
    uint32_t files = CardFileCount(pictures, media);
    if (args.json) {
        JsonLine()
            .Add("dir", dir)
            .Add("media_files", media)
            .Add("picture_files", pictures)
            .Add("files", files)
            .Print();
    } else {
        printf("%s: %u files (%u media, %u pictures), index header written\n", dir.c_str(), files, media,
               pictures);
    }
    return kExitOk;
}

}  // namespace

AVR_CARD_COMMAND(prealloc, "prealloc", "prealloc DIR --media N [--pictures M] [--json]",
                 {"--media", "--pictures"}, RunPrealloc);
