// "avrecord-card info": the index header, then one row per media file in use.
#include <cstdio>
#include <ctime>
#include <string>

#include "avrecord_lib/record_config.h"
#include "card_command.h"
#include "card_reader/index_check.h"
#include "tools/calendar_time.h"

namespace {

// "YYYY-MM-DD HH:MM:SS" in UTC, "-" for 0 (nothing written yet).
std::string UtcText(uint32_t seconds) { return seconds == 0 ? "-" : UtcTimeText(seconds); }

void PrintHeader(const CardArgs &args, const RecordConfigInfo &header, uint32_t freeMiB) {
    if (args.json) {
        JsonLine()
            .Add("type", "header")
            .Add("card", args.card)
            .Add("version", header.m_u32Version)
            .Add("file_sum", header.m_u32RecordFileSum)
            .Add("file_used", header.m_u32RecordFileUsed)
            .Add("current_file", header.m_u32FileInfoHeadNo)
            .Add("space_size", header.m_u32RecordSpaceSize)
            .Add("free_mib", freeMiB)
            .Add("config_value", header.m_u32RecordConfigValue)
            .Print();
        return;
    }
    printf("card          %s\n", args.card.c_str());
    printf("version       %u\n", header.m_u32Version);
    printf("media files   %u (used %u, current %u)\n", header.m_u32RecordFileSum, header.m_u32RecordFileUsed,
           header.m_u32FileInfoHeadNo);
    printf("space size    %#x\n", header.m_u32RecordSpaceSize);
    printf("free          %u MiB\n", freeMiB);
    printf("\n%6s  %-19s  %-19s  %10s  %8s  %10s  %4s\n", "file", "start (UTC)", "end (UTC)", "data size",
           "sections", "key frames", "type");
}

void PrintFile(const CardArgs &args, uint32_t fileNo, const FileInfoHead &file) {
    if (args.json) {
        JsonLine line;
        AddFileRecord(line.Add("type", "file"), fileNo, file).Print();
        return;
    }
    printf("%6u  %-19s  %-19s  %10u  %8u  %10u  %4u\n", fileNo, UtcText(file.m_u32StartTime).c_str(),
           UtcText(file.m_u32EndTime).c_str(), file.m_u32DataSize, file.m_u32RecordSectionSum,
           file.m_u32KeyFrameSum, file.m_u32RecordType);
}

int RunInfo(const CardArgs &args) {
    if (!args.positional.empty()) return CardFail(args, kExitUsage, "takes no operands");
    CardIndex index;
    std::string reason;
    if (LoadCardIndex(args.card, &index, &reason) != 0)
        return CardFail(args, kExitCardProblem, "%s", reason.c_str());
    uint32_t spaceSize = 0;
    uint32_t freeMiB = 0;
    AV_RecordConfigInfoGet((args.card + kIndexFileName).c_str(), &spaceSize, &freeMiB);
    PrintHeader(args, index.header, freeMiB);
    for (uint32_t fileNo = 0; fileNo < index.files.size(); ++fileNo) {
        if (index.files[fileNo].m_u32HeadFlag == kFileInfoHeadFlag)
            PrintFile(args, fileNo, index.files[fileNo]);
    }
    return kExitOk;
}

}  // namespace

AVR_CARD_COMMAND(info, "info", "info [--card DIR|--image PATH] [--json]", {"--image"}, RunInfo, nullptr,
                 kReadsIndex);
