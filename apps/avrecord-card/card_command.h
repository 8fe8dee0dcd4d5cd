// The avrecord-card subcommand registry and the conventions every
// subcommand shares: --card DIR (default: the daemon's mount point under
// AVRECORD_ROOT), --json (one JSON object per line), exit 0 on success,
// 1 on a card problem, 2 on bad usage, one clear line on standard error.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

inline constexpr int kExitOk = 0;
inline constexpr int kExitCardProblem = 1;
inline constexpr int kExitUsage = 2;

struct CardArgs {
    std::string command;
    std::vector<std::string> positional;         // operands in order
    std::map<std::string, std::string> options;  // "--name" -> value ("" for flags)
    std::string card;                            // card directory, with a trailing '/'
    bool json = false;

    bool Has(const std::string &name) const { return options.count(name) != 0; }
    std::string Get(const std::string &name, const std::string &fallback = "") const;
};

struct CardCommand {
    const char *name;
    const char *usage;  // "format TARGET [--percent P] [--init]"
    // Options that take a value; every other "--x" is a flag.
    std::vector<std::string> valueOptions;
    int (*run)(const CardArgs &args);
    // The flag with which --image is opened read-write (nullptr: never).
    const char *imageWriteFlag = nullptr;
    // Reads the card's index: takes --recover, and is warned of a damaged
    // index without it.
    bool readsIndex = false;
};
inline constexpr bool kReadsIndex = true;

bool RegisterCardCommand(const CardCommand &command);

// Prints "avrecord-card <command>: <message>" on standard error and returns
// the exit code given.
int CardFail(const CardArgs &args, int code, const char *format, ...) __attribute__((format(printf, 3, 4)));

// One JSON object on a line, built field by field.
class JsonLine {
public:
    JsonLine &Add(const std::string &key, const std::string &value);
    JsonLine &Add(const std::string &key, const char *value) { return Add(key, std::string(value)); }
    JsonLine &Add(const std::string &key, long long value);
    JsonLine &Add(const std::string &key, unsigned long long value);
    JsonLine &Add(const std::string &key, int value) { return Add(key, static_cast<long long>(value)); }
    JsonLine &Add(const std::string &key, unsigned value) {
        return Add(key, static_cast<unsigned long long>(value));
    }
    JsonLine &Add(const std::string &key, double value);
    JsonLine &AddBool(const std::string &key, bool value);
    // value is JSON already (an array or object).
    JsonLine &AddRaw(const std::string &key, const std::string &value);
    std::string Text() const { return "{" + body_ + "}"; }
    void Print() const;

private:
    void Key(const std::string &key);
    std::string body_;
};

// Appends text to out as a quoted, escaped JSON string.
void AppendJsonString(std::string &out, const std::string &text);
// text as a quoted, escaped JSON string.
std::string JsonString(const std::string &text);
// "[a,b,...]" from JSON values.
std::string JsonArray(const std::vector<std::string> &values);

struct RecordingSpan;
// The recording the command's one NAME operand names, located on the card.
// kExitOk, or the exit code with the message given.
int CardLocateRecording(const CardArgs &args, RecordingSpan *span);

struct FileInfoHead;
// Adds a media file's record: number, times, data size, sections, key
// frames and record type, as info --json and the page's API give them.
JsonLine &AddFileRecord(JsonLine &line, uint32_t fileNo, const FileInfoHead &file);

// What a header rebuilt for the card takes as its stored configuration
// value: for --image, the size in MiB of the image or device, as the
// formatter writes it; 0 for a card directory.
uint32_t CardConfigValue(const CardArgs &args);

// Before a command that reads the index runs: with --recover the rebuilt
// index goes in under every read of the card, without it a damaged index
// is named. kExitOk, or the exit code to stop with.
int CardPrepareIndexReader(const CardArgs &args);

// True when --recover is in force and the section is a remnant of an earlier
// lap of the circular recording (frames the index no longer describes).
bool CardSectionIsRemnant(uint32_t fileNo, uint32_t sectionNo);

// Registers a subcommand from its own file.
#define AVR_CARD_COMMAND(id, ...) \
    static const bool kRegistered_##id = RegisterCardCommand(CardCommand{__VA_ARGS__})
