// "avrecord-card search": the recordings of a card in a time range, one row
// per section (normal recordings) or alarm event of the type asked for.
#include <cstdio>
#include <memory>
#include <string>

#include "card_command.h"
#include "card_reader/recording_reader.h"
#include "tools/calendar_time.h"
#include "tools/seek_file.h"

namespace {

bool ParseType(const std::string &text, uint16_t *type) {
    for (uint16_t known : {kSeekTypeNormal, kSeekTypeAlarm1, kSeekTypeAlarm4, kSeekTypeAlarm8}) {
        if (text == std::to_string(known)) {
            *type = known;
            return true;
        }
    }
    return false;
}

// With --recover: a section of an earlier lap that the index no longer holds.
bool IsRemnant(const FileListEntry &e) {
    RecordingSpan span;
    return RecordingParseName(e.szFileName, &span) == 0 && !span.bEvent &&
           CardSectionIsRemnant(span.u32FileNo, span.u32Number);
}

void PrintEntry(const CardArgs &args, const FileListEntry &e) {
    bool remnant = IsRemnant(e);
    if (args.json) {
        JsonLine line;
        line.Add("name", e.szFileName)
            .Add("start", e.u32StartTime)
            .Add("end", e.u32EndTime)
            .Add("size", e.u32FileSize)
            .Add("frames", e.u32FrameCount)
            .Add("frame_rate", e.u32FrameRate);
        if (remnant) line.AddBool("remnant", true);
        line.Print();
        return;
    }
    printf("%-19s  %-19s  %-19s  %10u  %8u  %3u%s\n", e.szFileName, LocalTimeText(e.u32StartTime).c_str(),
           LocalTimeText(e.u32EndTime).c_str(), e.u32FileSize, e.u32FrameCount, e.u32FrameRate,
           remnant ? "  remnant of an earlier lap" : "");
}

int RunSearch(const CardArgs &args) {
    if (!args.positional.empty()) return CardFail(args, kExitUsage, "takes no operands");
    if (!args.Has("--from") || !args.Has("--to")) return CardFail(args, kExitUsage, "needs --from and --to");
    uint32_t from = 0, to = 0;
    if (!ParseTimeArgument(args.Get("--from").c_str(), &from) ||
        !ParseTimeArgument(args.Get("--to").c_str(), &to)) {
        return CardFail(args, kExitUsage, "times are local YYYY-MM-DDTHH:MM:SS or seconds since 1970");
    }
    if (from > to) return CardFail(args, kExitUsage, "--from is after --to");
    uint16_t type = kSeekTypeNormal;
    if (args.Has("--type") && !ParseType(args.Get("--type"), &type)) {
        return CardFail(args, kExitUsage, "--type is 2 (normal), 1, 4 or 8 (alarm type)");
    }
    auto list = std::make_unique<FileListInfo>();
    if (SeekFileOnCard(args.card.c_str(), type, from, to, list.get()) != 0) {
        return CardFail(args, kExitCardProblem, "cannot search %s: index or event file missing or damaged",
                        args.card.c_str());
    }
    if (!args.json) {
        if (list->s32FileNum == 0) {
            printf("no recordings from %s to %s\n", LocalTimeText(from).c_str(), LocalTimeText(to).c_str());
            return kExitOk;
        }
        printf("%-19s  %-19s  %-19s  %10s  %8s  %3s\n", "name", "start", "end", "size", "frames", "fps");
    }
    for (int i = 0; i < list->s32FileNum; ++i) PrintEntry(args, list->stFileList[i]);
    return kExitOk;
}

}  // namespace

AVR_CARD_COMMAND(search, "search",
                 "search --from TIME --to TIME [--type 2|1|4|8] [--card DIR|--image PATH] [--json]",
                 {"--from", "--to", "--type", "--image"}, RunSearch, nullptr, kReadsIndex);
