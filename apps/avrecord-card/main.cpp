// avrecord-card: format, prepare, inspect and read AVRecord cards.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "card_command.h"
#include "card_reader/card_image_io.h"
#include "card_reader/card_recovery.h"
#include "card_reader/index_check.h"
#include "card_reader/recovered_view.h"
#include "common/file_io.h"
#include "common/platform_paths.h"

namespace {

constexpr unsigned kBytesToMiBShift = 20;

std::vector<CardCommand> &Registry() {
    static std::vector<CardCommand> commands;
    return commands;
}

const CardCommand *FindCommand(const std::string &name) {
    for (const CardCommand &command : Registry()) {
        if (name == command.name) return &command;
    }
    return nullptr;
}

// The commands that read a card's index, and so take --recover.
constexpr const char *kIndexReaders[] = {"check", "export", "frames", "info", "search", "serve", "timeline"};

bool ReadsIndex(const std::string &name) {
    return std::find_if(std::begin(kIndexReaders), std::end(kIndexReaders),
                        [&](const char *reader) { return name == reader; }) != std::end(kIndexReaders);
}

// A command's synopsis with every option it takes, as --help and the
// manual page list it: --recover goes beside the card's options.
std::string CommandSynopsis(const CardCommand &command) {
    std::string synopsis = command.usage;
    if (!ReadsIndex(command.name)) return synopsis;
    constexpr std::string_view kCardOptions = "[--card DIR|--image PATH]";
    size_t at = synopsis.find(kCardOptions);
    at = at == std::string::npos ? synopsis.size() : at + kCardOptions.size();
    return synopsis.insert(at, " [--recover]");
}

int PrintUsage(FILE *out) {
    std::vector<CardCommand> commands = Registry();
    std::sort(commands.begin(), commands.end(),
              [](const CardCommand &a, const CardCommand &b) { return strcmp(a.name, b.name) < 0; });
    fprintf(out, "usage: avrecord-card COMMAND [--card DIR | --image PATH] [--json] ...\n\ncommands:\n");
    for (const CardCommand &command : commands) fprintf(out, "  %s\n", CommandSynopsis(command).c_str());
    fprintf(
        out,
        "\nOn a card whose index is damaged, check, export, frames, info, search, serve and timeline take\n"
        "--recover: they then read the index rebuilt from the media files, in memory (nothing is "
        "written).\n");
    return kExitUsage;
}

bool TakesValue(const CardCommand &command, const std::string &name) {
    if (name == "--card") return true;
    return std::find(command.valueOptions.begin(), command.valueOptions.end(), name) !=
           command.valueOptions.end();
}

bool IsHelpWord(const char *word) { return strcmp(word, "--help") == 0 || strcmp(word, "-h") == 0; }

// True when --help or -h stands among the command's words as an option (not
// as the value of one): the command then only prints its usage.
bool AsksForHelp(const CardCommand &command, int argc, char **argv) {
    for (int i = 2; i < argc; ++i) {
        if (IsHelpWord(argv[i])) return true;
        if (strchr(argv[i], '=') == nullptr && TakesValue(command, argv[i])) ++i;
    }
    return false;
}

int PrintCommandUsage(const CardCommand &command) {
    printf("usage: avrecord-card %s\n", CommandSynopsis(command).c_str());
    return kExitOk;
}

// --image PATH: the card is read from an image or raw device, read-only;
// args.card becomes the directory its files appear under.
int AttachImage(const CardCommand &command, CardArgs &args) {
    if (args.Has("--card")) return CardFail(args, kExitUsage, "--card and --image exclude each other");
    std::string image = args.Get("--image");
    if (image.empty()) return CardFail(args, kExitUsage, "--image needs a card image or device");
    std::string why;
    bool writable = command.imageWriteFlag != nullptr && args.Has(command.imageWriteFlag);
    if (CardImageAttach(image, &args.card, &why, writable) != 0)
        return CardFail(args, kExitCardProblem, "%s", why.c_str());
    return kExitOk;
}

// Options may stand before or after the operands; "--name=value" works too.
int ParseArgs(const CardCommand &command, int argc, char **argv, CardArgs &args) {
    for (int i = 2; i < argc; ++i) {
        std::string word = argv[i];
        if (word.size() < 2 || word.compare(0, 2, "--") != 0 || word == "--") {
            if (word == "-o" && i + 1 < argc && TakesValue(command, "-o")) {
                args.options["-o"] = argv[++i];
                continue;
            }
            args.positional.push_back(word);
            continue;
        }
        std::string value;
        size_t equals = word.find('=');
        if (equals != std::string::npos) {
            value = word.substr(equals + 1);
            word = word.substr(0, equals);
        } else if (TakesValue(command, word)) {
            if (i + 1 >= argc) return CardFail(args, kExitUsage, "option %s needs a value", word.c_str());
            value = argv[++i];
        }
        if (word == "--json") {
            args.json = true;
        } else if (word != "--card" && !TakesValue(command, word) && !value.empty()) {
            return CardFail(args, kExitUsage, "option %s takes no value", word.c_str());
        }
        args.options[word] = value;
    }
    if (args.Has("--image")) {
        if (!TakesValue(command, "--image")) return CardFail(args, kExitUsage, "takes no --image");
        return AttachImage(command, args);
    }
    args.card = args.Has("--card") ? args.Get("--card") : PlatformPath(kCardMountPoint);
    if (args.card.empty()) return CardFail(args, kExitUsage, "--card needs a directory");
    if (args.card.back() != '/') args.card += '/';
    return kExitOk;
}

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
    CardIndex index;
    std::string reason;
    if (LoadCardIndex(cardDir, &index, &reason) != 0) return reason;
    int fd = AVFileOpen((cardDir + kIndexFileName).c_str(), kAVFileModeRead);
    std::vector<SectionInfoHead> sections(kMaxSectionNo);
    std::string damage;
    for (uint32_t n = 0; n < index.files.size() && damage.empty(); ++n) {
        const FileInfoHead &file = index.files[n];
        if (file.m_u32HeadFlag != kFileInfoHeadFlag) continue;
        bool whole = file.m_u32FileNo == n && file.m_u32RecordSectionSum != 0 &&
                     AV_RecordSectionInfoHeadRead(fd, &file, sections.data()) == 0;
        for (uint32_t slot = 1; whole && slot <= file.m_u32RecordSectionSum; ++slot) {
            const SectionInfoHead &s = sections[slot - 1];
            whole = s.m_u32HeadFlag == kSectionInfoHeadFlag && s.m_u16SectionNo == slot;
        }
        if (!whole) damage = "the records of media file " + std::to_string(n);
    }
    AVFileClose(fd);
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
    int fd = PosixFileIo().open(args.Get("--image").c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return 0;
    int64_t bytes = PosixFileIo().seek(fd, 0, SEEK_END);
    PosixFileIo().close(fd);
    return bytes > 0 ? static_cast<uint32_t>(static_cast<uint64_t>(bytes) >> kBytesToMiBShift) : 0;
}

bool CardSectionIsRemnant(uint32_t fileNo, uint32_t sectionNo) {
    return g_recoveredView && RecoveryIsRemnant(g_recovered, fileNo, sectionNo);
}

std::string CardArgs::Get(const std::string &name, const std::string &fallback) const {
    auto found = options.find(name);
    return found == options.end() ? fallback : found->second;
}

bool RegisterCardCommand(const CardCommand &command) {
    Registry().push_back(command);
    return true;
}

int CardFail(const CardArgs &args, int code, const char *format, ...) {
    char message[1024];
    va_list list;
    va_start(list, format);
    vsnprintf(message, sizeof message, format, list);
    va_end(list);
    fprintf(stderr, "avrecord-card %s: %s\n", args.command.c_str(), message);
    return code;
}

void AppendJsonString(std::string &out, const std::string &text) {
    out += '"';
    for (unsigned char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char escaped[8];
                    snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    out += escaped;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    out += '"';
}

std::string JsonString(const std::string &text) {
    std::string out;
    AppendJsonString(out, text);
    return out;
}

void JsonLine::Key(const std::string &key) {
    if (!body_.empty()) body_ += ",";
    AppendJsonString(body_, key);
    body_ += ':';
}

JsonLine &JsonLine::Add(const std::string &key, const std::string &value) {
    Key(key);
    AppendJsonString(body_, value);
    return *this;
}

JsonLine &JsonLine::Add(const std::string &key, long long value) {
    Key(key);
    body_ += std::to_string(value);
    return *this;
}

JsonLine &JsonLine::Add(const std::string &key, unsigned long long value) {
    Key(key);
    body_ += std::to_string(value);
    return *this;
}

JsonLine &JsonLine::Add(const std::string &key, double value) {
    Key(key);
    char text[64];
    snprintf(text, sizeof text, "%.6g", value);
    body_ += text;
    return *this;
}

JsonLine &JsonLine::AddBool(const std::string &key, bool value) {
    Key(key);
    body_ += value ? "true" : "false";
    return *this;
}

JsonLine &JsonLine::AddRaw(const std::string &key, const std::string &value) {
    Key(key);
    body_ += value;
    return *this;
}

std::string JsonArray(const std::vector<std::string> &values) {
    std::string out = "[";
    for (size_t i = 0; i < values.size(); ++i) out += (i == 0 ? "" : ",") + values[i];
    return out + "]";
}

void JsonLine::Print() const { printf("%s\n", Text().c_str()); }

int main(int argc, char **argv) {
    if (argc < 2) return PrintUsage(stderr);
    if (IsHelpWord(argv[1]) || strcmp(argv[1], "help") == 0) {
        PrintUsage(stdout);
        return kExitOk;
    }
    CardArgs args;
    args.command = argv[1];
    const CardCommand *command = FindCommand(args.command);
    if (command == nullptr) {
        fprintf(stderr, "avrecord-card: unknown command '%s' (try --help)\n", argv[1]);
        return kExitUsage;
    }
    if (AsksForHelp(*command, argc, argv)) return PrintCommandUsage(*command);
    int parsed = ParseArgs(*command, argc, argv, args);
    if (parsed != kExitOk) return parsed;
    if (ReadsIndex(args.command)) {
        if (args.Has("--recover")) {
            int installed = InstallRecoveredView(args);
            if (installed != kExitOk) return installed;
        } else if (args.command != "check") {
            WarnIfDamaged(args);
        }
    }
    return command->run(args);
}
