// "avrecord-card init": a fresh index for the media files present on the
// card. The file records and alarm-event slots of those files are cleared
// first, then the header is written, so the card records from file 0 on.
#include <cstdio>
#include <string>
#include <vector>

#include "avrecord_lib/index_records.h"
#include "avrecord_lib/record_config.h"
#include "avrecord_lib/record_file.h"
#include "card_command.h"
#include "card_reader/index_check.h"
#include "mkfs/card_file_set.h"

namespace {

// Media files hi000000.mp4, hi000001.mp4, ... present in a row; -1 (with a
// message) for one of the wrong size or more than the index describes.
int CountMediaFiles(const CardArgs &args, uint32_t *count) {
    uint32_t fileNo = 0;
    for (;; ++fileNo) {
        int64_t size = CardFileSize(CardMediaFilePath(args.card, fileNo));
        if (size < 0) break;
        if (size != kMediaFileSize) {
            return CardFail(args, kExitCardProblem, "%s is %lld bytes, not %u",
                            CardMediaFilePath(args.card, fileNo).c_str(), static_cast<long long>(size),
                            kMediaFileSize);
        }
        if (fileNo >= kCardMaxMediaFiles) {
            return CardFail(args, kExitCardProblem,
                            "more than %u media files: the index cannot describe them", kCardMaxMediaFiles);
        }
    }
    *count = fileNo;
    return kExitOk;
}

// Zeroes count records of recordSize bytes from position on in path.
bool ClearRecords(const std::string &path, uint32_t position, uint32_t recordSize, uint32_t count) {
    int fd = AVFileOpen(path.c_str(), kAVFileModeReadWrite);
    if (fd < 0) return false;
    std::vector<uint8_t> zeros(static_cast<size_t>(recordSize) * count);
    bool ok = AV_RecordStreamInfoWrite(fd, position, zeros.data(), static_cast<uint32_t>(zeros.size())) >= 0;
    AVFileClose(fd);
    return ok;
}

int RunInit(const CardArgs &args) {
    if (!args.positional.empty()) return CardFail(args, kExitUsage, "takes no operands");
    std::string index = args.card + kIndexFileName;
    int64_t indexSize = CardFileSize(index);
    if (indexSize < 0)
        return CardFail(args, kExitCardProblem, "no %s in %s: not a prepared card", kIndexFileName,
                        args.card.c_str());
    uint32_t media = 0;
    if (int status = CountMediaFiles(args, &media); status != kExitOk) return status;
    if (media == 0) return CardFail(args, kExitCardProblem, "no media files in %s", args.card.c_str());
    uint64_t indexNeeded = SectionInfoHeadPosition(media, 0);
    if (static_cast<uint64_t>(indexSize) < indexNeeded) {
        return CardFail(args, kExitCardProblem, "%s holds %lld bytes, %u media files need %llu",
                        index.c_str(), static_cast<long long>(indexSize), media,
                        static_cast<unsigned long long>(indexNeeded));
    }
    if (!ClearRecords(index, FileInfoHeadPosition(0), sizeof(FileInfoHead), media)) {
        return CardFail(args, kExitCardProblem, "cannot clear the file records in %s", index.c_str());
    }
    std::string events = args.card + kEventFileName;
    if (CardFileSize(events) >= 0 &&
        !ClearRecords(events, AlarmEventInfoPosition(0), kAlarmEventInfoSlotSize, media)) {
        return CardFail(args, kExitCardProblem, "cannot clear the alarm-event slots in %s", events.c_str());
    }
    MkfsCapacityInfo config = {};
    config.m_u32VideoFileNum = media;
    if (AV_RecordFileConfigSet(index.c_str(), &config) != 0) {
        return CardFail(args, kExitCardProblem, "cannot write the index header to %s", index.c_str());
    }
    if (args.json) {
        JsonLine().Add("card", args.card).Add("media_files", media).Print();
    } else {
        printf("%s: index initialised for %u media files\n", args.card.c_str(), media);
    }
    return kExitOk;
}

}  // namespace

AVR_CARD_COMMAND(init, "init", "init [--card DIR] [--json]", {}, RunInit);
