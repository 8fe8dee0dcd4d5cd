// --recover and the damaged-index warning: what a command that reads the
// card's index sees before it runs.
#include <fcntl.h>

#include <cstdio>

#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "card_command.h"
#include "card_reader/card_recovery.h"
#include "card_reader/index_check.h"
#include "card_reader/recovered_view.h"
#include "common/file_guard.h"
#include "common/file_io.h"

namespace {

constexpr unsigned kBytesToMiBShift = 20;

CardRecovery g_recovered;
bool g_recoveredView = false;

// --recover: the index rebuilt from the media files, in memory, under every
// read of the card; nothing is written.
int InstallRecoveredView(const CardArgs &args) {
    std::string why;
    if (RecoverCard(args.card, &g_recovered, &why, CardConfigValue(args)) != 0)
        return CardFail(args, kExitCardProblem, "%s", why.c_str());
    RecoveredViewInstall(args.card, RecoveryPatches(g_recovered, true));
    g_recoveredView = true;
    uint64_t remnants = 0;
    for (const RecoveredFile &f : g_recovered.files) remnants += f.remnants.size();
    fprintf(stderr,
            "avrecord-card %s: showing the index rebuilt from the media files (read-only, in memory): %zu "
            "records "
            "differ from the card's, %llu sections are remnants of earlier laps\n",
            args.command.c_str(), g_recovered.changes.size(), static_cast<unsigned long long>(remnants));
    return kExitOk;
}

// A quick look at the index for the warning below: the header, and each
// file record in use with its section records (check does the full job,
// reading every key-frame entry). An empty string when nothing is wrong.
std::string IndexDamage(const std::string &cardDir) {
    CardIndex card;
    std::string reason;
    if (LoadCardIndex(cardDir, &card, &reason) != 0) return reason;
    FileGuard index = AVFileOpenGuarded(cardDir + kIndexFileName);
    std::vector<SectionInfoHead> sections(kMaxSectionNo);
    std::string damage;
    for (uint32_t n = 0; n < card.files.size() && damage.empty(); ++n) {
        const FileInfoHead &file = card.files[n];
        if (file.m_u32HeadFlag != kFileInfoHeadFlag) continue;
        bool whole = file.m_u32FileNo == n && file.m_u32RecordSectionSum != 0 &&
                     AV_RecordSectionInfoHeadRead(index.fd(), &file, sections.data()) == 0;
        if (!whole) damage = "the records of media file " + std::to_string(n);
        for (uint32_t slot = 1; damage.empty() && slot <= file.m_u32RecordSectionSum; ++slot) {
            std::string section = SectionRecordDamage(sections[slot - 1], n, slot);
            if (!section.empty())
                damage =
                    "media file " + std::to_string(n) + " section " + std::to_string(slot) + ": " + section;
        }
    }
    return damage;
}

// Without --recover, a damaged index of a card with media files is named
// before the command runs.
void WarnIfDamaged(const CardArgs &args) {
    if (CardFileSize(CardMediaFilePath(args.card, 0)) < 0) return;  // no card there to recover
    std::string damage = IndexDamage(args.card);
    if (damage.empty()) return;
    fprintf(stderr,
            "avrecord-card %s: the card's index is damaged (%s); --recover shows what the media files hold, "
            "read-only (avrecord-card recover rebuilds the index)\n",
            args.command.c_str(), damage.c_str());
}

}  // namespace

uint32_t CardConfigValue(const CardArgs &args) {
    if (!args.Has("--image")) return 0;
    FileGuard image(PosixFileIo().open(args.Get("--image").c_str(), O_RDONLY | O_CLOEXEC, 0), &PosixFileIo());
    if (!image.ok()) return 0;
    int64_t bytes = PosixFileIo().seek(image.fd(), 0, SEEK_END);
    return bytes > 0 ? static_cast<uint32_t>(static_cast<uint64_t>(bytes) >> kBytesToMiBShift) : 0;
}

bool CardSectionIsRemnant(uint32_t fileNo, uint32_t sectionNo) {
    return g_recoveredView && RecoveryIsRemnant(g_recovered, fileNo, sectionNo);
}

int CardPrepareIndexReader(const CardArgs &args) {
    if (args.Has("--recover")) return InstallRecoveredView(args);
    if (args.command != "check") WarnIfDamaged(args);  // check says it all itself
    return kExitOk;
}
