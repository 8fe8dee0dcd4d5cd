// avrecord-card: format, prepare, inspect and read AVRecord cards.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "card_command.h"
#include "card_reader/card_image_io.h"
#include "common/file_io.h"
#include "common/platform_paths.h"

namespace {

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

// A command's synopsis with every option it takes, as --help and the
// manual page list it: --recover goes beside the card's options.
std::string CommandSynopsis(const CardCommand &command) {
    std::string synopsis = command.usage;
    if (!command.readsIndex) return synopsis;
    constexpr std::string_view kCardOptions = "[--card DIR|--image PATH]";
    size_t at = synopsis.find(kCardOptions);
    at = at == std::string::npos ? synopsis.size() : at + kCardOptions.size();
    return synopsis.insert(at, " [--recover]");
}

// "a, b and c".
std::string JoinedNames(const std::vector<std::string> &names) {
    std::string text;
    for (size_t i = 0; i < names.size(); ++i) {
        if (i != 0) text += i + 1 == names.size() ? " and " : ", ";
        text += names[i];
    }
    return text;
}

int PrintUsage(FILE *out) {
    std::vector<CardCommand> commands = Registry();
    std::sort(commands.begin(), commands.end(),
              [](const CardCommand &a, const CardCommand &b) { return strcmp(a.name, b.name) < 0; });
    fprintf(out, "usage: avrecord-card COMMAND [--card DIR | --image PATH] [--json] ...\n\ncommands:\n");
    std::vector<std::string> readers;
    for (const CardCommand &command : commands) {
        fprintf(out, "  %s\n", CommandSynopsis(command).c_str());
        if (command.readsIndex) readers.push_back(command.name);
    }
    fprintf(out, "\nOn a card whose index is damaged, %s take\n", JoinedNames(readers).c_str());
    fprintf(out,
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

}  // namespace

bool RegisterCardCommand(const CardCommand &command) {
    Registry().push_back(command);
    return true;
}

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
    if (command->readsIndex) {
        int prepared = CardPrepareIndexReader(args);
        if (prepared != kExitOk) return prepared;
    }
    return command->run(args);
}
