// What every subcommand shares (card_command.h): its arguments, its error
// line, and the JSON lines of --json and the page's API.
#include "card_command.h"

#include <cstdarg>
#include <cstdio>

#include "avrecord_lib/index_records.h"
#include "card_reader/recording_reader.h"

std::string CardArgs::Get(const std::string &name, const std::string &fallback) const {
    auto found = options.find(name);
    return found == options.end() ? fallback : found->second;
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

JsonLine &AddFileRecord(JsonLine &line, uint32_t fileNo, const FileInfoHead &file) {
    return line.Add("file", fileNo)
        .Add("start", file.m_u32StartTime)
        .Add("end", file.m_u32EndTime)
        .Add("data_size", file.m_u32DataSize)
        .Add("sections", file.m_u32RecordSectionSum)
        .Add("key_frames", file.m_u32KeyFrameSum)
        .Add("record_type", file.m_u32RecordType);
}

int CardLocateRecording(const CardArgs &args, RecordingSpan *span) {
    if (args.positional.size() != 1 || RecordingParseName(args.positional[0].c_str(), span) != 0)
        return CardFail(args, kExitUsage, "needs one NAME like hi000000_000001.mp4 or he000000_000000.mp4");
    std::string reason;
    if (RecordingLocate(args.card.c_str(), span, &reason) != 0)
        return CardFail(args, kExitCardProblem, "%s", reason.c_str());
    return kExitOk;
}
