// "avrecord-card format TARGET [--percent P] [--init]": formats a block
// device or an image file as a recorder card and, with --init, leaves a
// fresh index header in index000.bin so the card is ready to record.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "avrecord_lib/record_builder.h"
#include "card_command.h"
#include "mkfs/card_image.h"
#include "mkfs/mkfs_vfat.h"

namespace {

constexpr int kDefaultPercent = 100;

bool ParsePercent(const std::string &text, int *percent) {
    if (text.empty()) return false;
    char *end = nullptr;
    long value = strtol(text.c_str(), &end, 10);
    if (*end != '\0' || value < 0 || value > 100) return false;
    *percent = static_cast<int>(value);
    return true;
}

void ShowProgress(uint64_t done, uint64_t total, void *) {
    int percent = total == 0 ? 100 : static_cast<int>(done * 100 / total);
    fprintf(stderr, "\rformatting: %3d%%%s", percent, done >= total ? "\n" : "");
}

// The header AV_RecordFileConfigSet would write when handed the capacity
// record, placed straight into index000.bin's clusters.
int WriteFreshHeader(const std::string &target, const MkfsCapacityInfo &capacity, const Fat32Layout &layout) {
    RecordConfigInfo header;
    AV_RecordConfigInfoInit(&header, static_cast<uint32_t>(capacity.m_u64TotalSize),
                            capacity.m_u32VideoFileNum);
    return CardImageWriteFile(target.c_str(), layout, kIndexFileName, 0, &header, sizeof header);
}

void PrintCapacity(const CardArgs &args, const std::string &target, const MkfsCapacityInfo &capacity,
                   const Fat32Layout &layout, bool initialised) {
    if (args.json) {
        JsonLine()
            .Add("target", target)
            .Add("total_mib", static_cast<unsigned long long>(capacity.m_u64TotalSize))
            .Add("media_mib", static_cast<unsigned long long>(capacity.m_u64VideoSpace))
            .Add("media_files", capacity.m_u32VideoFileNum)
            .Add("picture_mib", static_cast<unsigned long long>(capacity.m_u64PictureSpace))
            .Add("picture_files", capacity.m_u32PictureFileNum)
            .Add("sectors_per_cluster", layout.sectorsPerCluster)
            .Add("clusters", layout.clusterCount)
            .AddBool("index_header", initialised)
            .Print();
        return;
    }
    printf("target          %s\n", target.c_str());
    printf("total size      %llu MiB\n", static_cast<unsigned long long>(capacity.m_u64TotalSize));
    printf("media files     %u (%llu MiB)\n", capacity.m_u32VideoFileNum,
           static_cast<unsigned long long>(capacity.m_u64VideoSpace));
    printf("picture files   %u (%llu MiB)\n", capacity.m_u32PictureFileNum,
           static_cast<unsigned long long>(capacity.m_u64PictureSpace));
    printf("cluster size    %u bytes, %u clusters\n", layout.ClusterBytes(), layout.clusterCount);
    printf("index header    %s\n", initialised ? "written, ready to record" : "not written (use --init)");
}

int RunFormat(const CardArgs &args) {
    if (args.positional.size() != 1)
        return CardFail(args, kExitUsage, "needs one TARGET (device or image file)");
    const std::string &target = args.positional[0];
    int percent = kDefaultPercent;
    if (args.Has("--percent") && !ParsePercent(args.Get("--percent"), &percent)) {
        return CardFail(args, kExitUsage, "--percent takes a whole number from 0 to 100");
    }
    bool showProgress = !args.json && isatty(STDERR_FILENO);
    MkfsOptions options{showProgress ? ShowProgress : nullptr, nullptr, 0};
    MkfsCapacityInfo capacity{};
    Fat32Layout layout{};
    if (MkfsVfatFormat(target.c_str(), &capacity, percent, options, &layout) != 0) {
        return CardFail(args, kExitCardProblem, "formatting '%s' failed", target.c_str());
    }
    bool initialise = args.Has("--init");
    if (initialise && WriteFreshHeader(target, capacity, layout) != 0) {
        return CardFail(args, kExitCardProblem, "'%s' is formatted but its index header could not be written",
                        target.c_str());
    }
    PrintCapacity(args, target, capacity, layout, initialise);
    return kExitOk;
}

}  // namespace

AVR_CARD_COMMAND(format, "format", "format TARGET [--percent P] [--init] [--json]", {"--percent"}, RunFormat);
