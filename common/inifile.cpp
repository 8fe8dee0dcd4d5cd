#include "common/inifile.h"

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Argument errors abort with the C library's standard assertion message,
// in every build type. The message names this module's original source file
// and the condition as configuration tools have always printed it.
#define INI_ASSERT(condition, text) \
    ((condition) ? static_cast<void>(0) : IniAssertFail(text, __LINE__, __func__))

namespace {

[[noreturn]] void IniAssertFail(const char *condition, int line, const char *function) {
    const char *program = program_invocation_short_name;
    std::fprintf(stderr, "%s%sinifile.c:%d: %s: Assertion `%s' failed.\n", program, program[0] ? ": " : "",
                 line, function, condition);
    std::fflush(stderr);
    std::abort();
}

constexpr unsigned char kTextEndByte = 0xFF;  // EOF as a char, and a real 0xFF byte
constexpr int kMaxTextLength = MAX_FILE_SIZE - 1;
constexpr int kIntValueSize = 32;

bool IsLineEnd(char c) { return c == '\n' || c == '\r'; }

bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Index of the LF, CR or NUL that ends the line starting at i.
int LineEnd(const char *buf, int i) {
    while (buf[i] != '\0' && !IsLineEnd(buf[i])) ++i;
    return i;
}

// True when the key line [start, end) names key: the text before its first
// "=" (never the one in column 0) is a prefix of key. Comment lines start
// with ";" in column 0.
bool LineNamesKey(const char *buf, int start, int end, const char *key, int *equals) {
    if (end - start < 2 || buf[start] == ';' || buf[start] == '=') return false;
    const void *found = std::memchr(buf + start + 1, '=', end - start - 1);
    if (found == nullptr) return false;
    int at = static_cast<int>(static_cast<const char *>(found) - buf);
    if (std::strncmp(key, buf + start, at - start) != 0) return false;
    *equals = at;
    return true;
}

// True when formatting `format` with one int argument reads nothing but that
// int. Each conversion is read the way the C library reads it:
//   "%" [n"$"] flags* [width] ["." precision] [modifier] conversion
// with flags from "-+ #0'I", a width or precision of digits or of "*" (the
// next argument) or "*n$" (argument n), a modifier of which only "h" and "hh"
// keep the argument an int, and a single conversion character after it.
// Passed are: d, i, o, u, x, X, c, b and B, which read an int; "%", "m" and
// characters the library does not know, which read nothing; each with any
// flags, an "h" or "hh", and a width or precision up to the text's size.
// Refused is everything that reads something else or more: a pointer (s, S,
// p, n), a floating value (a, e, f, g), a wider integer (l, ll, L, q, j, z,
// Z, t, w..., C), a second argument (two reads in sequence, a position other
// than 1, positions mixed with reads in sequence, a position on a conversion
// that reads nothing, which leaves the argument's type unknown), digits
// after "*" that do not make a position (the library's two parsers read them
// differently), a width or precision wider than the text could be, a "$"
// where a conversion belongs, and a conversion the end of the text cuts
// short.
class FormatArguments {
public:
    static bool ReadsOnlyOneInt(const char *format) {
        FormatArguments scan;
        for (const char *p = std::strchr(format, '%'); p != nullptr; p = std::strchr(p, '%')) {
            if (!scan.Conversion(&p)) return false;
        }
        return scan.sequentialReads_ <= 1 && !(scan.positional_ && scan.sequentialReads_ > 0);
    }

private:
    static constexpr char kFlags[] = "-+ #0'I";
    static constexpr char kIntConversions[] = "diouxXcbB";
    // Conversions reading anything but an int, modifiers that widen the
    // argument, and a "$" left over from a malformed position.
    static constexpr char kRefused[] = "sSpnaAeEfFgGClLqjzZtw$";

    static bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

    // The number the digits at *p spell, saturated just above the largest
    // size allowed; *p moves past every digit.
    static unsigned Number(const char **p) {
        unsigned n = 0;
        for (; IsDigit(**p); ++*p)
            if (n <= MAX_FILE_SIZE) n = n * 10 + static_cast<unsigned>(**p - '0');
        return n;
    }

    // Reads "n$" at *p; false when there is none (p unchanged).
    static bool Position(const char **p, unsigned *position) {
        const char *q = *p;
        unsigned n = Number(&q);
        if (q == *p || *q != '$') return false;
        *position = n;
        *p = q + 1;
        return true;
    }

    // One argument read: at a position, which must be the first argument,
    // or the next in sequence.
    bool Reads(bool atPosition, unsigned position) {
        if (!atPosition) {
            ++sequentialReads_;
            return true;
        }
        positional_ = true;
        return position == 1;
    }

    // A width or precision at *p, which moves past it.
    bool FieldSize(const char **p) {
        if (**p != '*') return Number(p) <= static_cast<unsigned>(MAX_FILE_SIZE);
        ++*p;
        if (!IsDigit(**p)) return Reads(false, 0);
        unsigned position = 0;
        return Position(p, &position) && Reads(true, position);
    }

    // The conversion whose "%" is at *at; moves *at past it.
    bool Conversion(const char **at) {
        const char *p = *at + 1;
        unsigned position = 0;
        bool atPosition = Position(&p, &position);
        p += std::strspn(p, kFlags);
        if (!FieldSize(&p)) return false;
        if (*p == '.') {
            ++p;
            if (!FieldSize(&p)) return false;
        }
        if (*p == 'h') p += p[1] == 'h' ? 2 : 1;
        const char conversion = *p;
        if (conversion == '\0' || std::strchr(kRefused, conversion) != nullptr) return false;
        *at = p + 1;
        bool readsInt = std::strchr(kIntConversions, conversion) != nullptr;
        if (atPosition) return readsInt && Reads(true, position);
        return !readsInt || Reads(false, 0);
    }

    bool positional_ = false;
    int sequentialReads_ = 0;
};

// Collects the rewritten file text, refusing anything past the buffer.
struct IniText {
    char *buf;
    int used = 0;
    bool overflow = false;

    void Append(const char *text, int length) {
        if (overflow || length > kMaxTextLength - used) {
            overflow = true;
            return;
        }
        std::memcpy(buf + used, text, length);
        used += length;
        buf[used] = '\0';
    }

    void Printed(int result) {
        if (result < 0 || result > kMaxTextLength - used) {
            overflow = true;
            buf[used] = '\0';
            return;
        }
        used += result;
    }

    void KeyLine(const char *prefix, const char *section, const char *key, const char *value) {
        if (overflow) return;
        int result = section != nullptr
                         ? std::snprintf(buf + used, MAX_FILE_SIZE - used, "%s[%s]\n%s=%s\n", prefix, section,
                                         key, value)
                         : std::snprintf(buf + used, MAX_FILE_SIZE - used, "%s=%s\n", key, value);
        Printed(result);
    }

    // The text after an inserted key goes through the formatter as the format
    // itself with the remaining length as its one argument, so a "%d" in it
    // turns into that number and "%%" into "%"; configuration tools have
    // always rewritten files this way. A format that could read anything
    // but that one int leaves the file as it was.
    void RestAsFormat(const char *rest, int remaining) {
        if (overflow) return;
        if (!FormatArguments::ReadsOnlyOneInt(rest)) {
            overflow = true;
            return;
        }
        Printed(std::snprintf(buf + used, MAX_FILE_SIZE - used, rest, remaining));
    }
};

// Builds the new file text into text from the loaded old text and the
// positions parse_file found. Returns false when it would not fit.
bool ComposeIniText(IniText &text, const char *old, int oldSize, const char *section, const char *key,
                    const char *value, int sec_e, int key_s, int value_s, int value_e) {
    if (sec_e == -1) {
        text.Append(old, oldSize);
        text.KeyLine(oldSize == 0 ? "" : "\n", section, key, value);
    } else if (key_s == -1) {
        text.Append(old, sec_e);
        text.KeyLine("", nullptr, key, value);
        text.RestAsFormat(old + sec_e, oldSize - sec_e);
    } else {
        text.Append(old, value_s);
        text.Append(value, static_cast<int>(std::strlen(value)));
        text.Append(old + value_e, oldSize - value_e);
    }
    return !text.overflow;
}

}  // namespace

int load_ini_file(const char *file, char *buf, int *file_size) {
    INI_ASSERT(file != nullptr, "file !=NULL");
    INI_ASSERT(buf != nullptr, "buf !=NULL");
    *file_size = 0;
    FILE *in = std::fopen(file, "re");
    if (in == nullptr) return 0;
    int i = 0;
    for (;;) {
        buf[i] = static_cast<char>(std::fgetc(in));
        if (static_cast<unsigned char>(buf[i]) == kTextEndByte) break;
        ++i;
        INI_ASSERT(i < MAX_FILE_SIZE, "i < MAX_FILE_SIZE");
    }
    buf[i] = '\0';
    *file_size = i;
    std::fclose(in);
    return 1;
}

int parse_file(const char *section, const char *key, const char *buf, int *sec_s, int *sec_e, int *key_s,
               int *key_e, int *value_s, int *value_e) {
    INI_ASSERT(buf != nullptr, "buf!=NULL");
    INI_ASSERT(section != nullptr && std::strlen(section), "section != NULL && strlen(section)");
    INI_ASSERT(key != nullptr && std::strlen(key), "key != NULL && strlen(key)");
    *sec_s = *sec_e = *key_s = *key_e = *value_s = *value_e = -1;

    int i = 0;
    while (buf[i] != '\0') {
        bool header = (i == 0 || IsLineEnd(buf[i - 1])) && buf[i] == '[';
        if (!header) {
            ++i;
            continue;
        }
        int nameStart = i + 1;
        i = nameStart;
        while (buf[i] != '\0' && buf[i] != ']') ++i;
        // Prefix match over the bracketed text: "[]" matches every section.
        if (std::strncmp(buf + nameStart, section, i - nameStart) != 0) continue;
        if (buf[i] == ']') ++i;
        while (IsSpace(buf[i])) ++i;
        *sec_s = nameStart;
        *sec_e = i;
        // The section's lines, up to a "[" directly after a line end.
        while (buf[i] != '\0' && !(IsLineEnd(buf[i - 1]) && buf[i] == '[')) {
            int lineEnd = LineEnd(buf, i);
            int equals = -1;
            if (LineNamesKey(buf, i, lineEnd, key, &equals)) {
                *key_s = i;
                *key_e = equals - 1;
                *value_s = equals + 1;
                *value_e = lineEnd;
                return 1;
            }
            i = buf[lineEnd] != '\0' ? lineEnd + 1 : lineEnd;
        }
    }
    return 0;
}

int read_profile_string(const char *section, const char *key, char *value, int size,
                        const char *default_value, const char *file) {
    INI_ASSERT(section != nullptr && std::strlen(section), "section != NULL && strlen(section)");
    INI_ASSERT(key != nullptr && std::strlen(key), "key != NULL && strlen(key)");
    INI_ASSERT(value != nullptr, "value != NULL");
    INI_ASSERT(size > 0, "size > 0");
    INI_ASSERT(file != nullptr && std::strlen(key), "file !=NULL &&strlen(key)");

    char buf[MAX_FILE_SIZE] = {0};
    int file_size = 0;
    int sec_s, sec_e, key_s, key_e, value_s, value_e;
    if (load_ini_file(file, buf, &file_size) &&
        parse_file(section, key, buf, &sec_s, &sec_e, &key_s, &key_e, &value_s, &value_e)) {
        int length = value_e - value_s;
        if (length >= size) length = size - 1;
        std::memset(value, 0, size);
        std::memcpy(value, buf + value_s, length);
        value[length] = '\0';
        return 1;
    }
    if (default_value != nullptr) std::strncpy(value, default_value, size);
    return 0;
}

int read_profile_int(const char *section, const char *key, int default_value, const char *file) {
    char value[kIntValueSize] = {0};
    if (!read_profile_string(section, key, value, kIntValueSize, nullptr, file)) return default_value;
    return std::atoi(value);
}

int write_profile_string(const char *section, const char *key, const char *value, const char *file) {
    INI_ASSERT(section != nullptr && std::strlen(section), "section != NULL && strlen(section)");
    INI_ASSERT(key != nullptr && std::strlen(key), "key != NULL && strlen(key)");
    INI_ASSERT(value != nullptr, "value != NULL");
    INI_ASSERT(file != nullptr && std::strlen(key), "file !=NULL &&strlen(key)");

    char buf[MAX_FILE_SIZE] = {0};
    char w_buf[MAX_FILE_SIZE] = {0};
    int file_size = 0;
    int sec_s = -1, sec_e = -1, key_s = -1, key_e = -1, value_s = -1, value_e = -1;
    if (load_ini_file(file, buf, &file_size)) {
        parse_file(section, key, buf, &sec_s, &sec_e, &key_s, &key_e, &value_s, &value_e);
    }
    IniText text{w_buf};
    if (!ComposeIniText(text, buf, file_size, section, key, value, sec_e, key_s, value_s, value_e)) return 0;

    FILE *out = std::fopen(file, "we");
    if (out == nullptr) return 0;
    bool written = std::fputs(w_buf, out) != EOF;
    bool closed = std::fclose(out) == 0;
    return written && closed ? 1 : 0;
}
