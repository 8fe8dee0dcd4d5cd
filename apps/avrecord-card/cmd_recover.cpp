// "avrecord-card recover": rebuilds the card's index from its media files
// and says what it found and which records it changed. By default nothing is
// written; --output DIR writes the rebuilt index000.bin and event000.bin
// there; --write puts them on the card in place after keeping the old index
// in a backup beside the card (--backup DIR names it).
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "card_command.h"
#include "card_reader/card_recovery.h"
#include "card_reader/recovered_view.h"
#include "terminal_progress.h"

namespace {

std::string UtcText(uint32_t seconds) {
    time_t value = seconds;
    struct tm utc;
    gmtime_r(&value, &utc);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc);
    return text;
}

std::string SectionName(uint32_t fileNo, uint32_t sectionNo) {
    char name[32];
    snprintf(name, sizeof name, kSectionNameFormat, static_cast<int>(fileNo), static_cast<int>(sectionNo));
    return name;
}

// The full path of a file or folder that exists ("" when it does not).
std::string FullPath(const std::string &path) {
    char full[PATH_MAX];
    return realpath(path.c_str(), full) != nullptr ? full : "";
}

// "<card or image>.index-backup-YYYYMMDD-HHMMSS" beside the card.
std::string DefaultBackupDir(const CardArgs &args) {
    std::string base = args.Has("--image") ? args.Get("--image") : args.card;
    // The full path, so that a card given as "." gets its backup beside it
    // and not inside it.
    if (!FullPath(base).empty()) base = FullPath(base);
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    time_t now = time(nullptr);
    struct tm utc;
    gmtime_r(&now, &utc);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &utc);
    return base + ".index-backup-" + stamp;
}

// The scan's progress line on a terminal: media files done of all.
TerminalProgress *g_progress = nullptr;

void ShowScan(uint32_t fileNo, uint32_t fileSum) {
    uint64_t done = uint64_t{fileNo} + 1;
    if (g_progress != nullptr)
        g_progress->Update(0, 0, done * kMediaFileSize, static_cast<double>(done) / fileSum);
}

void PrintFile(const CardArgs &args, uint32_t fileNo, const RecoveredFile &f) {
    const FileInfoHead &r = f.record;
    bool used = r.m_u32HeadFlag == kFileInfoHeadFlag;
    if (!used && f.remnants.empty()) return;
    if (args.json) {
        JsonLine line;
        line.Add("type", "file")
            .Add("file", fileNo)
            .Add("sections", static_cast<unsigned>(f.sections.size()));
        line.Add("frames", static_cast<unsigned long long>(f.frames));
        if (used) {
            line.Add("start", r.m_u32StartTime).Add("end", r.m_u32EndTime).Add("data_size", r.m_u32DataSize);
            line.Add("key_frames", r.m_u32KeyFrameSum);
        }
        line.Add("remnant_sections", static_cast<unsigned>(f.remnants.size()))
            .Add("remnant_frames", static_cast<unsigned long long>(f.remnantFrames))
            .Add("unreadable_bytes", static_cast<unsigned long long>(f.unreadableBytes))
            .Print();
    } else if (used) {
        printf("file %u: %zu sections, %llu frames, %s to %s, %u bytes\n", fileNo, f.sections.size(),
               static_cast<unsigned long long>(f.frames), UtcText(r.m_u32StartTime).c_str(),
               UtcText(r.m_u32EndTime).c_str(), r.m_u32DataSize);
    } else {
        printf("file %u: nothing of the current lap\n", fileNo);
    }
    // The remnants as the read-only view names them.
    uint32_t slot = static_cast<uint32_t>(f.sections.size());
    for (const SectionInfoHead &s : f.remnants) {
        ++slot;
        if (args.json) {
            JsonLine()
                .Add("type", "remnant")
                .Add("file", fileNo)
                .Add("name", slot <= kMaxSectionNo ? SectionName(fileNo, slot) : "")
                .Add("start", s.m_u32StartTime)
                .Add("end", s.m_u32EndTime)
                .Add("video_frames", s.m_u32VideoFrameSum)
                .Print();
        } else {
            printf("  remnant of an earlier lap: %s to %s, %u video frames%s%s\n",
                   UtcText(s.m_u32StartTime).c_str(), UtcText(s.m_u32EndTime).c_str(), s.m_u32VideoFrameSum,
                   slot <= kMaxSectionNo ? ", read-only as " : " (no slot left to show it)",
                   slot <= kMaxSectionNo ? SectionName(fileNo, slot).c_str() : "");
        }
    }
}

void PrintProblems(const CardArgs &args, const char *type, const char *title,
                   const std::vector<IndexProblem> &problems) {
    if (problems.empty()) return;
    if (!args.json) printf("%s (%zu):\n", title, problems.size());
    for (const IndexProblem &p : problems) {
        if (args.json) {
            JsonLine line;
            line.Add("type", type);
            if (p.fileNo >= 0) line.Add("file", static_cast<long long>(p.fileNo));
            if (p.sectionNo != 0) line.Add("section", p.sectionNo);
            line.Add("text", p.text).Print();
        } else {
            printf("  %s\n", FormatIndexProblem(p).c_str());
        }
    }
}

// Writes what the options ask for; the line saying what was done.
int Deliver(const CardArgs &args, const CardRecovery &recovery, std::string *done) {
    std::vector<CardFilePatches> patches = RecoveryPatches(recovery, false);
    std::string why;
    if (args.Has("--output")) {
        std::vector<std::string> written;
        if (RecoveryWriteOutput(args.card, patches, args.Get("--output"), &written, &why) != 0)
            return CardFail(args, kExitCardProblem, "%s", why.c_str());
        *done = "rebuilt index written to " + args.Get("--output") + " (" + std::to_string(written.size()) +
                " files); the card was not changed";
        return kExitOk;
    }
    if (!args.Has("--write")) {
        *done = recovery.changes.empty()
                    ? "the index agrees with the media files; nothing to write"
                    : "nothing written: --output DIR writes the rebuilt index, --write puts it on the card";
        return kExitOk;
    }
    if (recovery.changes.empty()) {
        *done = "the index agrees with the media files; nothing written";
        return kExitOk;
    }
    if (RecoveryCheckInPlace(args.card, patches, &why) != 0)
        return CardFail(args, kExitCardProblem, "%s (--output DIR writes the rebuilt index elsewhere)",
                        why.c_str());
    std::string backup = args.Has("--backup") ? args.Get("--backup") : DefaultBackupDir(args);
    std::string parent = FullPath(backup.substr(0, backup.find_last_of('/') + 1) + ".");
    if (!args.Has("--image") && !parent.empty() && (parent + "/").rfind(FullPath(args.card) + "/", 0) == 0)
        return CardFail(args, kExitUsage, "the backup must not go on the card: %s", backup.c_str());
    if (RecoveryBackup(args.card, backup, &why) != 0)
        return CardFail(args, kExitCardProblem, "no backup, nothing written: %s", why.c_str());
    int64_t bytes = RecoveryWriteInPlace(args.card, patches, &why);
    if (bytes < 0)
        return CardFail(args, kExitCardProblem, "%s (old index kept in %s)", why.c_str(), backup.c_str());
    *done =
        "index rewritten in place (" + std::to_string(bytes) + " bytes); the old index is kept in " + backup;
    return kExitOk;
}

int RunRecover(const CardArgs &args) {
    if (!args.positional.empty()) return CardFail(args, kExitUsage, "takes no operands");
    if (args.Has("--write") && args.Has("--output"))
        return CardFail(args, kExitUsage, "--write and --output exclude each other");
    if (args.Has("--backup") && !args.Has("--write"))
        return CardFail(args, kExitUsage, "--backup goes with --write");
    CardRecovery recovery;
    std::string why;
    TerminalProgress progress("scan");
    g_progress = &progress;
    int scanned = RecoverCard(args.card, &recovery, &why, CardConfigValue(args), ShowScan);
    progress.Finish();
    g_progress = nullptr;
    if (scanned != 0) return CardFail(args, kExitCardProblem, "%s", why.c_str());
    uint64_t frames = 0, remnantFrames = 0;
    for (uint32_t n = 0; n < recovery.files.size(); ++n) {
        PrintFile(args, n, recovery.files[n]);
        frames += recovery.files[n].frames;
        remnantFrames += recovery.files[n].remnantFrames;
    }
    PrintProblems(args, "change", "records changed", recovery.changes);
    PrintProblems(args, "note", "not recovered", recovery.notes);
    std::string done;
    int code = Deliver(args, recovery, &done);
    if (code != kExitOk) return code;
    if (args.json) {
        JsonLine()
            .Add("type", "summary")
            .Add("card", args.card)
            .Add("frames", static_cast<unsigned long long>(frames))
            .Add("remnant_frames", static_cast<unsigned long long>(remnantFrames))
            .Add("changes", static_cast<unsigned long long>(recovery.changes.size()))
            .Add("result", done)
            .Print();
    } else {
        printf("%llu frames in the index, %llu more in remnants of earlier laps; %s\n",
               static_cast<unsigned long long>(frames), static_cast<unsigned long long>(remnantFrames),
               done.c_str());
    }
    return kExitOk;
}

}  // namespace

AVR_CARD_COMMAND(recover, "recover",
                 "recover [--card DIR|--image PATH] [--output DIR | --write [--backup DIR]] [--json]",
                 {"--output", "--backup", "--image"}, RunRecover, "--write");
