#include "lib/sim_fields.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "lib/sim_io.h"
#include "sysconfig/sys_info.h"

namespace {

constexpr long kU8Max = 255;
constexpr long kU16Max = 65535;
constexpr long kStreamMax = kSysStreamCount - 1;
constexpr long kDayMax = kSysWeekDays - 1;
constexpr long kSegmentMax = kSysDaySegments - 1;
constexpr long kDayModeMax = TIME_SCOPE_DIFF;
constexpr long kRotateMax = 3;

// How values are checked. Unchecked (fault injection) lets a setting take
// any value its bytes hold; which byte it lands in is always checked.
struct ParseMode {
    bool unchecked;
    long Max(long max, long width) const { return unchecked ? width : max; }
};

// What one setting takes: its value words, checked, into changes.
using FieldParser = bool (*)(const std::vector<std::string> &args, const ParseMode &mode,
                             std::vector<FieldChange> *changes, std::string *error);

struct FieldDef {
    const char *name;
    size_t argCount;
    const char *args;
    const char *help;
    uint32_t offset;  // for single-byte settings; 0 when the parser places it
    long max;         // for single-byte settings
    FieldParser parse;
};

bool Number(const std::string &text, long min, long max, const char *what, long *value, std::string *error) {
    if (ParseNumber(text, min, max, value)) return true;
    *error = std::string("bad ") + what + " '" + text + "' (expected " + std::to_string(min) + ".." +
             std::to_string(max) + ")";
    return false;
}

void PutByte(std::vector<FieldChange> *changes, uint32_t offset, long value) {
    changes->push_back({offset, {static_cast<uint8_t>(value)}, -1});
}

// "HH:MM" or "HH:MM:SS" into hour, minute, second.
// A segment end may be 24:00, the end of the day (the schedule counts to
// the minute, so 23:59 would leave the day's last minute out).
// Unchecked, any two digits pass (hour 99).
bool ParseTime(const std::string &text, const ParseMode &mode, uint8_t out[3], std::string *error,
               bool endOfDayAllowed = false) {
    int h = -1, m = -1, s = 0;
    char tail = 0;
    int n = sscanf(text.c_str(), "%2d:%2d:%2d%c", &h, &m, &s, &tail);
    bool endOfDay = endOfDayAllowed && h == 24 && m == 0 && s == 0;
    bool inRange = mode.unchecked || ((h <= 23 || endOfDay) && m <= 59 && s <= 59);
    if ((n != 2 && n != 3) || h < 0 || m < 0 || s < 0 || !inRange || text.size() != (n == 2 ? 5u : 8u)) {
        *error = "bad time '" + text + "' (expected HH:MM or HH:MM:SS)";
        return false;
    }
    out[0] = static_cast<uint8_t>(h);
    out[1] = static_cast<uint8_t>(m);
    out[2] = static_cast<uint8_t>(s);
    return true;
}

bool StreamU16(const std::vector<std::string> &args, const ParseMode &mode, std::vector<FieldChange> *changes,
               std::string *error, uint32_t (*offsetOf)(int)) {
    long s = 0, v = 0;
    if (!Number(args[0], 0, kStreamMax, "stream", &s, error) ||
        !Number(args[1], mode.unchecked ? 0 : 1, kU16Max, "value", &v, error))
        return false;
    uint16_t value = static_cast<uint16_t>(v);
    FieldChange change{offsetOf(static_cast<int>(s)), std::vector<uint8_t>(sizeof value), -1};
    memcpy(change.bytes.data(), &value, sizeof value);
    changes->push_back(change);
    return true;
}

bool StreamByte(const std::vector<std::string> &args, std::vector<FieldChange> *changes, std::string *error,
                uint32_t base) {
    long s = 0, v = 0;
    if (!Number(args[0], 0, kStreamMax, "stream", &s, error) ||
        !Number(args[1], 0, kU8Max, "value", &v, error))
        return false;
    PutByte(changes, base + static_cast<uint32_t>(s), v);
    return true;
}

bool Width(const std::vector<std::string> &a, const ParseMode &mode, std::vector<FieldChange> *c,
           std::string *e) {
    return StreamU16(a, mode, c, e, [](int s) { return SysStreamWidthOffset(s); });
}
bool Height(const std::vector<std::string> &a, const ParseMode &mode, std::vector<FieldChange> *c,
            std::string *e) {
    return StreamU16(a, mode, c, e, [](int s) { return SysStreamHeightOffset(s); });
}
bool Encoding(const std::vector<std::string> &a, const ParseMode &, std::vector<FieldChange> *c,
              std::string *e) {
    return StreamByte(a, c, e, offsetof(SysInfo, iEncoding));
}
bool StreamMode(const std::vector<std::string> &a, const ParseMode &, std::vector<FieldChange> *c,
                std::string *e) {
    return StreamByte(a, c, e, offsetof(SysInfo, ucStreamMode));
}

// The rotation in force becomes preRotate, then the new one is set.
bool Rotate(const std::vector<std::string> &a, const ParseMode &mode, std::vector<FieldChange> *c,
            std::string *e) {
    long v = 0;
    if (!Number(a[0], 0, mode.Max(kRotateMax, kU8Max), "rotation", &v, e)) return false;
    c->push_back(
        {offsetof(SysInfo, preRotate), {}, static_cast<int32_t>(offsetof(SysInfo, ucVideoRotateMode))});
    PutByte(c, offsetof(SysInfo, ucVideoRotateMode), v);
    return true;
}

bool DayMode(const std::vector<std::string> &a, const ParseMode &mode, std::vector<FieldChange> *c,
             std::string *e) {
    long d = 0, dayMode = 0;
    if (!Number(a[0], 0, kDayMax, "day", &d, e) ||
        !Number(a[1], 0, mode.Max(kDayModeMax, kU8Max), "day mode", &dayMode, e))
        return false;
    PutByte(c, SysDayModeOffset(static_cast<int>(d)), dayMode);
    return true;
}

// segment D K HH:MM-HH:MM TYPE
bool Segment(const std::vector<std::string> &a, const ParseMode &mode, std::vector<FieldChange> *c,
             std::string *e) {
    long d = 0, k = 0, type = 0;
    if (!Number(a[0], 0, kDayMax, "day", &d, e) || !Number(a[1], 0, kSegmentMax, "segment", &k, e))
        return false;
    size_t dash = a[2].find('-');
    if (dash == std::string::npos) {
        *e = "bad segment '" + a[2] + "' (expected HH:MM-HH:MM)";
        return false;
    }
    uint8_t begin[3], end[3];
    if (!ParseTime(a[2].substr(0, dash), mode, begin, e) ||
        !ParseTime(a[2].substr(dash + 1), mode, end, e, true))
        return false;
    if (!Number(a[3], 0, kU8Max, "record type", &type, e)) return false;
    ScopeSegment segment{{begin[0], begin[1], begin[2], 0},
                         {end[0], end[1], end[2], static_cast<uint8_t>(type)}};
    FieldChange change{SysDaySegmentOffset(static_cast<int>(d), static_cast<int>(k)),
                       std::vector<uint8_t>(sizeof segment), -1};
    memcpy(change.bytes.data(), &segment, sizeof segment);
    c->push_back(change);
    return true;
}

const FieldDef kFields[] = {
    {"record-enable", 1, "0|1", "scheduled recording", offsetof(SysInfo, videoRecord.ucEnable), 1, nullptr},
    {"stream-type", 1, "S", "recorded stream 0..2", offsetof(SysInfo, videoRecord.ucVideoStreamType),
     kStreamMax, nullptr},
    {"width", 2, "S PIXELS", "width of stream S", 0, 0, Width},
    {"height", 2, "S PIXELS", "height of stream S", 0, 0, Height},
    {"encoding", 2, "S VALUE", "iEncoding of stream S (4 = MJPEG)", 0, 0, Encoding},
    {"video-standard", 1, "VALUE", "1 = 50 Hz, else 60 Hz", offsetof(SysInfo, ucVideoStandard), kU8Max,
     nullptr},
    {"stream-mode", 2, "S VALUE", "stream mode byte (4 at stream 0: 15 fps)", 0, 0, StreamMode},
    {"codec-mode", 1, "VALUE", "video codec mode", offsetof(SysInfo, nVideocodecmode), kU8Max, nullptr},
    {"rotate", 1, "0..3", "rotation (the old one becomes preRotate)", 0, 0, Rotate},
    {"audio-enable", 1, "0|1", "audio recording", offsetof(SysInfo, audio.ucEnable), 1, nullptr},
    {"audio-encoding", 1, "VALUE", "audio codec value (0 G.711A, 1 G.711U, 3 AAC)",
     offsetof(SysInfo, audio.ucEncoding), kU8Max, nullptr},
    {"lack-space", 1, "0|1", "0 keep old recordings, 1 overwrite",
     offsetof(SysInfo, videoRecord.ucLackSpaceModel), kU8Max, nullptr},
    {"prerecord", 1, "INDEX", "pre-record time index", offsetof(SysInfo, videoRecord.ucpreRecordTime), kU8Max,
     nullptr},
    {"delay", 1, "INDEX", "record delay index", offsetof(SysInfo, videoRecord.ucrecordDelay), kU8Max,
     nullptr},
    {"record-type", 1, "VALUE", "record type of new sections", offsetof(SysInfo, ucRecordFileOption), kU8Max,
     nullptr},
    {"day-mode", 2, "D MODE", "record mode 0..3 of weekday D (0 = Sunday)", 0, 0, DayMode},
    {"segment", 4, "D K HH:MM-HH:MM TYPE", "time segment K 0..5 of weekday D", 0, 0, Segment},
};

const FieldDef *FindField(const std::string &name) {
    for (const FieldDef &field : kFields) {
        if (name == field.name) return &field;
    }
    return nullptr;
}

}  // namespace

bool ParseSettings(const std::vector<std::string> &words, std::vector<FieldChange> *changes,
                   std::string *error) {
    std::vector<FieldChange> parsed;
    ParseMode mode{!words.empty() && words[0] == kUncheckedFlag};
    size_t first = mode.unchecked ? 1 : 0;
    if (words.size() == first) {
        *error = "no setting given";
        return false;
    }
    for (size_t i = first; i < words.size();) {
        const FieldDef *field = FindField(words[i]);
        if (field == nullptr) {
            *error = "unknown setting '" + words[i] + "'";
            return false;
        }
        if (i + field->argCount >= words.size()) {
            *error = std::string(field->name) + " needs " + field->args;
            return false;
        }
        std::vector<std::string> args(words.begin() + static_cast<long>(i + 1),
                                      words.begin() + static_cast<long>(i + 1 + field->argCount));
        std::string reason;
        bool ok = false;
        if (field->parse != nullptr) {
            ok = field->parse(args, mode, &parsed, &reason);
        } else {
            long value = 0;
            ok = Number(args[0], 0, mode.Max(field->max, kU8Max), "value", &value, &reason);
            if (ok) PutByte(&parsed, field->offset, value);
        }
        if (!ok) {
            *error = std::string(field->name) + ": " + reason;
            return false;
        }
        i += 1 + field->argCount;
    }
    changes->insert(changes->end(), parsed.begin(), parsed.end());
    return true;
}

bool LoadProfile(const std::string &path, std::vector<FieldChange> *changes, std::string *error) {
    std::ifstream in(path);
    if (!in) {
        *error = "cannot read profile " + path;
        return false;
    }
    std::vector<FieldChange> parsed;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        size_t hash = line.find('#');
        if (hash != std::string::npos) line.erase(hash);
        std::istringstream words(line);
        std::vector<std::string> list;
        for (std::string word; words >> word;) list.push_back(word);
        if (list.empty()) continue;
        std::string reason;
        if (!ParseSettings(list, &parsed, &reason)) {
            *error = path + ":" + std::to_string(number) + ": " + reason;
            return false;
        }
    }
    changes->insert(changes->end(), parsed.begin(), parsed.end());
    return true;
}

void ApplyChanges(uint8_t *sysInfo, const std::vector<FieldChange> &changes) {
    for (const FieldChange &change : changes) {
        if (change.copyFrom >= 0) {
            sysInfo[change.offset] = sysInfo[change.copyFrom];
            continue;
        }
        memcpy(sysInfo + change.offset, change.bytes.data(), change.bytes.size());
    }
}

std::string SettingsUsage() {
    std::string text;
    for (const FieldDef &field : kFields) {
        char line[160];
        snprintf(line, sizeof line, "    %-15s %-22s %s\n", field.name, field.args, field.help);
        text += line;
    }
    return text;
}
