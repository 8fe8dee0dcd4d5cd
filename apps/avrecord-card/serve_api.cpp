#include "serve_api.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>

#include "avrecord_lib/playback_reader.h"
#include "avrecord_lib/ps_format.h"
#include "avrecord_lib/record_file.h"
#include "avrecord_lib/record_index.h"
#include "card_command.h"
#include "card_reader/index_check.h"
#include "card_reader/record_timeline.h"
#include "card_reader/recording_reader.h"
#include "common/card_time.h"
#include "common/file_io.h"
#include "common/platform_paths.h"
#include "mp4/card_clip.h"
#include "tools/calendar_time.h"
#include "tools/seek_file.h"

namespace {

constexpr size_t kMaxParamLength = 64;   // longer than any time or name we take
constexpr int kMaxDaysPerRecording = 2;  // sections end at midnight; a longer span is damage

std::string RecordName(const char *format, uint32_t fileNo, uint32_t number) {
    char name[kFileListNameSize];
    snprintf(name, sizeof name, format, fileNo, number);
    return name;
}

void LoadSections(int indexFd, const std::vector<FileInfoHead> &files, CardCatalog *catalog) {
    std::unique_ptr<SectionInfoHead[]> heads(new SectionInfoHead[kMaxSectionNo]);
    for (FileInfoHead file : files) {
        if (file.m_u32HeadFlag != kFileInfoHeadFlag) continue;
        file.m_u32RecordSectionSum = std::min(file.m_u32RecordSectionSum, kMaxSectionNo);
        if (AV_RecordSectionInfoHeadRead(indexFd, &file, heads.get()) != 0) continue;
        uint32_t firstKeyEntry = 0;  // the file's key-frame table lists its sections in turn
        for (uint32_t j = 0; j < file.m_u32RecordSectionSum; ++j) {
            const SectionInfoHead &s = heads[j];
            if (s.m_u32HeadFlag != kSectionInfoHeadFlag) continue;
            uint32_t first = firstKeyEntry;
            firstKeyEntry += s.m_u32KeyFrameSum;
            // A section without frames yet has no end and nothing to show.
            if (s.m_u32EndTime <= s.m_u32StartTime) continue;
            catalog->sections.push_back(
                CatalogSection{RecordName(kSectionNameFormat, file.m_u32FileNo, s.m_u16SectionNo), s,
                               SeekFileMidnightCorrected(s.m_u32EndTime), first});
        }
    }
}

// A card without a readable event file still shows its sections.
void LoadEvents(const std::string &cardDir, uint32_t fileSum, CardCatalog *catalog) {
    FileGuard events = AVFileOpenGuarded(cardDir + kEventFileName);
    if (events.fd() < 0) return;
    std::unique_ptr<AlarmEventEntry[]> entries(new AlarmEventEntry[kMaxAlarmEventSum]);
    for (uint32_t n = 0; n < fileSum; ++n) {
        AlarmEventInfo info;
        if (AV_AlarmEventFileInfoRead(events.fd(), n, &info) != 0 ||
            info.m_u32HeadFlag != kAlarmEventInfoFlag || info.m_u32AlarmEventSum == 0 ||
            AV_AlarmEventEntryListRead(events.fd(), &info, entries.get()) != 0) {
            continue;
        }
        for (uint32_t i = 0; i < info.m_u32AlarmEventSum; ++i) {
            const AlarmEventEntry &e = entries[i];
            if (e.m_u32HeadFlag != kAlarmEventEntryFlag) continue;
            uint32_t end = std::max(SeekFileMidnightCorrected(e.m_u32EndTime), e.m_u32StartTime);
            catalog->events.push_back(
                CatalogEvent{RecordName(kEventNameFormat, info.m_u32AlarmFileNo, i), e, end});
        }
    }
}

// Text quoted back in a message: printable ASCII only.
std::string Printable(std::string text) {
    for (char &c : text) {
        if (c < 0x20 || c > 0x7e) c = '?';
    }
    return text;
}

bool Overlaps(uint32_t start, uint32_t end, uint32_t from, uint32_t to) { return start <= to && end >= from; }

constexpr size_t kDayTextLength = 10;  // "YYYY-MM-DD"

std::string LocalDay(uint32_t seconds) { return LocalTimeText(seconds).substr(0, kDayTextLength); }

// Local midnight at the start of the day holding seconds, and the next one.
void LocalDayBounds(uint32_t seconds, int64_t *start, int64_t *end) {
    DateTime t = LocalDateTime(seconds);
    *start = LocalSeconds(DateTime{t.year, t.month, t.day, 0, 0, 0, 0});
    *end = LocalSeconds(DateTime{t.year, t.month, t.day + 1, 0, 0, 0, 0});
}

struct DayCount {
    int64_t start = 0;
    int64_t end = 0;
    unsigned sections = 0;
    unsigned events = 0;
};

// Counts a recording on every local day it touches.
template <typename Member>
void CountDays(uint32_t start, uint32_t end, Member member, std::map<std::string, DayCount> *days) {
    uint32_t at = start;
    for (int n = 0; n < kMaxDaysPerRecording && at <= end; ++n) {
        DayCount &day = (*days)[LocalDay(at)];
        LocalDayBounds(at, &day.start, &day.end);
        ++(day.*member);
        if (day.end <= at) break;
        at = static_cast<uint32_t>(day.end);
    }
}

// The offsets of the local clock over the day, for the page to show the
// clock's own times on a day the clocks change.
std::string ClockJson(const DayCount &day) {
    std::vector<std::string> spans;
    auto card = [](int64_t t) {
        return static_cast<uint32_t>(std::clamp<int64_t>(t, kCardTimeFirst, kCardTimeLast));
    };
    for (const LocalClockSpan &span : LocalClockSpans(card(day.start), card(day.end - 1))) {
        spans.push_back(
            JsonLine().Add("from", span.from).Add("offset", span.offset).Add("zone", span.zone).Text());
    }
    return JsonArray(spans);
}

ApiReply Ok(const JsonLine &line) { return ApiReply{kHttpOk, line.Text()}; }

ApiReply CatalogOrError(const std::string &cardDir, CardCatalog *catalog) {
    std::string reason;
    if (LoadCardCatalog(cardDir, catalog, &reason) != 0) return ApiError(kHttpServerError, reason);
    return ApiReply{kHttpOk, ""};
}

const char *AudioName(uint8_t codeType) {
    const PsAudioType *type = PsAudioTypeOfSection(codeType);
    return type != nullptr ? type->name : "none";
}

// The codec of a section from its first video frame; "" when unreadable.
std::string SectionCodec(const std::string &cardDir, const std::string &name) {
    RecordingSpan span;
    std::string reason, codec;
    if (RecordingParseName(name.c_str(), &span) != 0 || RecordingLocate(cardDir.c_str(), &span, &reason) != 0)
        return codec;
    RecordingReadFrames(
        cardDir.c_str(), span,
        [&codec](const RecordingFrame &frame) {
            if (frame.iType != kPSFrameVideo) return true;
            codec = RecordingIsH265(frame) ? "h265" : "h264";
            return false;
        },
        &reason);
    return codec;
}

std::string EventJson(const CatalogEvent &event) {
    return JsonLine()
        .Add("name", event.name)
        .Add("start", event.entry.m_u32StartTime)
        .Add("end", event.end)
        .Add("type", static_cast<unsigned>(event.entry.m_u8AlarmType))
        .Add("alarm", AlarmTypeName(event.entry.m_u8AlarmType))
        .Add("size", event.entry.m_u32DataSize)
        .Add("frames", event.entry.m_u32FrameSum)
        .Add("frame_rate", static_cast<unsigned>(event.entry.m_u8FrameRate))
        .Text();
}

// The section's JSON with the codec read from its first frame, the alarm
// types of the events during it, and the fields of extra.
std::string SectionDetails(const std::string &cardDir, const CardCatalog &catalog,
                           const CatalogSection &section, const JsonLine &extra) {
    std::set<unsigned> alarms;
    for (const CatalogEvent &e : catalog.events) {
        if (Overlaps(e.entry.m_u32StartTime, e.end, section.head.m_u32StartTime, section.end))
            alarms.insert(e.entry.m_u8AlarmType);
    }
    std::vector<std::string> types, names;
    for (unsigned type : alarms) {
        types.push_back(std::to_string(type));
        names.push_back(JsonString(AlarmTypeName(static_cast<uint16_t>(type))));
    }
    std::string codec = SectionCodec(cardDir, section.name);
    std::string json = SectionJson(section);
    json.pop_back();  // the details go on inside the same object
    json += ",\"codec\":\"" + (codec.empty() ? std::string("unknown") : codec) +
            "\",\"alarm_types\":" + JsonArray(types) + ",\"alarms\":" + JsonArray(names);
    std::string more = extra.Text();
    if (more.size() > 2) json += "," + more.substr(1, more.size() - 2);
    return json + "}";
}

}  // namespace

ApiReply ApiError(int status, const std::string &message) {
    return ApiReply{status, JsonLine().Add("error", message).Text()};
}

ApiParams::ApiParams(const ApiQuery &query, std::initializer_list<const char *> accepted) : query_(query) {
    for (const auto &[name, value] : query) {
        if (std::none_of(accepted.begin(), accepted.end(), [&](const char *a) { return name == a; })) {
            Fail("unknown parameter '" + Printable(name.substr(0, kMaxParamLength)) + "'");
        } else if (query.count(name) > 1) {
            Fail("parameter '" + name + "' given more than once");
        } else if (value.size() > kMaxParamLength) {
            Fail("parameter '" + name + "' is too long");
        }
        if (!Ok()) return;
    }
}

bool ApiParams::Fail(const std::string &message) {
    if (error_.empty()) error_ = message;
    return false;
}

const std::string *ApiParams::Find(const char *name, bool required) {
    if (!Ok()) return nullptr;
    auto found = query_.find(name);
    if (found != query_.end()) return &found->second;
    if (required) Fail(std::string("parameter '") + name + "' is missing");
    return nullptr;
}

bool ApiParams::Time(const char *name, uint32_t *value) {
    const std::string *text = Find(name, true);
    if (text == nullptr) return false;
    if (!ParseTimeArgument(text->c_str(), value))
        return Fail(std::string("parameter '") + name +
                    "' is no time (seconds since 1970 or local YYYY-MM-DDTHH:MM:SS)");
    return true;
}

bool ApiParams::Range(uint32_t *from, uint32_t *to) {
    if (!Time("from", from) || !Time("to", to)) return false;
    if (*from > *to) return Fail("'from' is after 'to'");
    return true;
}

bool ApiParams::AlarmType(const char *name, uint16_t *type) {
    *type = 0;
    const std::string *text = Find(name, false);
    if (text == nullptr) return Ok();
    for (uint16_t known : kTimelineAlarmTypes) {
        if (*text == std::to_string(known)) {
            *type = known;
            return true;
        }
    }
    return Fail(std::string("parameter '") + name + "' is an alarm type: 1, 4 or 8");
}

bool ApiParams::Flag(const char *name, bool *value) {
    *value = false;
    const std::string *text = Find(name, false);
    if (text == nullptr) return Ok();
    if (*text != "0" && *text != "1") return Fail(std::string("parameter '") + name + "' is 0 or 1");
    *value = *text == "1";
    return true;
}

bool ApiParams::RecordingName(const char *name, std::string *value) {
    const std::string *text = Find(name, true);
    if (text == nullptr) return false;
    RecordingSpan span;
    if (RecordingParseName(text->c_str(), &span) != 0 || span.bEvent)
        return Fail(std::string("parameter '") + name + "' is no section name (hiNNNNNN_NNNNNN.mp4)");
    *value = *text;
    return true;
}

int LoadCardCatalog(const std::string &cardDir, CardCatalog *catalog, std::string *reason) {
    catalog->sections.clear();
    catalog->events.clear();
    CardIndex index;
    if (LoadCardIndex(cardDir, &index, reason) != 0) return -1;
    FileGuard indexFile = AVFileOpenGuarded(cardDir + kIndexFileName);
    if (indexFile.fd() < 0) {
        *reason = "cannot open " + cardDir + kIndexFileName;
        return -1;
    }
    LoadSections(indexFile.fd(), index.files, catalog);
    LoadEvents(cardDir, static_cast<uint32_t>(index.files.size()), catalog);
    auto byStart = [](const auto &a, const auto &b) { return a.head.m_u32StartTime < b.head.m_u32StartTime; };
    std::stable_sort(catalog->sections.begin(), catalog->sections.end(), byStart);
    std::stable_sort(catalog->events.begin(), catalog->events.end(), [](const auto &a, const auto &b) {
        return a.entry.m_u32StartTime < b.entry.m_u32StartTime;
    });
    return 0;
}

const CatalogSection *CatalogSectionAt(const CardCatalog &catalog, uint32_t at, uint32_t slack) {
    for (const CatalogSection &s : catalog.sections) {
        if (s.head.m_u32StartTime <= at && at <= s.end) return &s;
    }
    for (const CatalogSection &s : catalog.sections) {
        if (s.head.m_u32StartTime > at && s.head.m_u32StartTime - at <= slack) return &s;
    }
    return nullptr;
}

std::string SectionJson(const CatalogSection &section) {
    const SectionInfoHead &h = section.head;
    return JsonLine()
        .Add("name", section.name)
        .Add("start", h.m_u32StartTime)
        .Add("end", section.end)
        .Add("size", h.m_u32SectionSize)
        .Add("frames", h.m_u32VideoFrameSum)
        .Add("frame_rate", static_cast<unsigned>(h.m_u8FrameRate))
        .Add("width", static_cast<unsigned>(h.m_u16Width))
        .Add("height", static_cast<unsigned>(h.m_u16Height))
        .Add("audio", AudioName(h.m_u8AudioCodeType))
        .Add("record_type", static_cast<unsigned>(h.m_u8RecordType))
        .AddBool("remnant", CardSectionIsRemnant(h.m_u32FileNo, h.m_u16SectionNo))
        .Text();
}

ApiReply ApiDays(const std::string &cardDir, const ApiQuery &query) {
    ApiParams params(query, {});
    if (!params.Ok()) return params.Error();
    CardCatalog catalog;
    ApiReply loaded = CatalogOrError(cardDir, &catalog);
    if (loaded.status != kHttpOk) return loaded;
    std::map<std::string, DayCount> days;
    for (const CatalogSection &s : catalog.sections)
        CountDays(s.head.m_u32StartTime, s.end, &DayCount::sections, &days);
    for (const CatalogEvent &e : catalog.events)
        CountDays(e.entry.m_u32StartTime, e.end, &DayCount::events, &days);
    std::vector<std::string> rows;
    for (const auto &[day, count] : days) {
        rows.push_back(JsonLine()
                           .Add("day", day)
                           .Add("start", static_cast<long long>(count.start))
                           .Add("end", static_cast<long long>(count.end))
                           .Add("sections", count.sections)
                           .Add("events", count.events)
                           .AddRaw("clock", ClockJson(count))
                           .Text());
    }
    return Ok(JsonLine().AddRaw("days", JsonArray(rows)));
}

ApiReply ApiSections(const std::string &cardDir, const ApiQuery &query) {
    ApiParams params(query, {"from", "to"});
    uint32_t from = 0, to = 0;
    if (!params.Range(&from, &to)) return params.Error();
    CardCatalog catalog;
    ApiReply loaded = CatalogOrError(cardDir, &catalog);
    if (loaded.status != kHttpOk) return loaded;
    std::vector<std::string> rows;
    for (const CatalogSection &s : catalog.sections) {
        if (Overlaps(s.head.m_u32StartTime, s.end, from, to)) rows.push_back(SectionJson(s));
    }
    return Ok(JsonLine().Add("from", from).Add("to", to).AddRaw("sections", JsonArray(rows)));
}

ApiReply ApiEvents(const std::string &cardDir, const ApiQuery &query) {
    ApiParams params(query, {"from", "to", "type"});
    uint32_t from = 0, to = 0;
    uint16_t type = 0;
    if (!params.Range(&from, &to) || !params.AlarmType("type", &type)) return params.Error();
    CardCatalog catalog;
    ApiReply loaded = CatalogOrError(cardDir, &catalog);
    if (loaded.status != kHttpOk) return loaded;
    std::vector<std::string> rows;
    for (const CatalogEvent &e : catalog.events) {
        if ((type == 0 || e.entry.m_u8AlarmType == type) && Overlaps(e.entry.m_u32StartTime, e.end, from, to))
            rows.push_back(EventJson(e));
    }
    return Ok(JsonLine().Add("from", from).Add("to", to).AddRaw("events", JsonArray(rows)));
}

ApiReply ApiSection(const std::string &cardDir, const ApiQuery &query) {
    ApiParams params(query, {"name"});
    std::string name;
    if (!params.RecordingName("name", &name)) return params.Error();
    CardCatalog catalog;
    ApiReply loaded = CatalogOrError(cardDir, &catalog);
    if (loaded.status != kHttpOk) return loaded;
    auto found = std::find_if(catalog.sections.begin(), catalog.sections.end(),
                              [&name](const CatalogSection &s) { return s.name == name; });
    if (found == catalog.sections.end())
        return ApiError(kHttpNotFound, "no section " + name + " on the card");
    return ApiReply{kHttpOk, SectionDetails(cardDir, catalog, *found, JsonLine())};
}

ApiReply FindPlayable(const std::string &cardDir, const ApiQuery &query, PlayTarget *target) {
    ApiParams params(query, {"at"});
    uint32_t at = 0;
    if (!params.Time("at", &at)) return params.Error();
    ApiReply loaded = CatalogOrError(cardDir, &target->catalog);
    if (loaded.status != kHttpOk) return loaded;
    target->section = CatalogSectionAt(target->catalog, at, kPlaySlackSeconds);
    if (target->section == nullptr) return ApiError(kHttpNotFound, "nothing was recorded at that moment");
    target->at = std::max(at, target->section->head.m_u32StartTime);
    target->end = target->section->end;
    return loaded;
}

ApiReply ApiPlay(const std::string &cardDir, const ApiQuery &query) {
    PlayTarget target;
    ApiReply found = FindPlayable(cardDir, query, &target);
    if (found.status != kHttpOk) return found;
    ClipRequest request;
    request.cardDir = cardDir;
    request.from = target.at;
    request.to = target.end;
    uint32_t keyTime = 0;
    std::string reason;
    if (CardClipKeyTime(request, &keyTime, &reason) != kClipOk) return ApiError(kHttpServerError, reason);
    return ApiReply{kHttpOk, SectionDetails(cardDir, target.catalog, *target.section,
                                            JsonLine().Add("key_time", keyTime))};
}

ApiReply ApiInfo(const std::string &cardDir, const ApiQuery &query) {
    ApiParams params(query, {});
    if (!params.Ok()) return params.Error();
    CardIndex index;
    std::string reason;
    if (LoadCardIndex(cardDir, &index, &reason) != 0) return ApiError(kHttpServerError, reason);
    std::vector<std::string> files;
    for (uint32_t n = 0; n < index.files.size(); ++n) {
        const FileInfoHead &f = index.files[n];
        if (f.m_u32HeadFlag != kFileInfoHeadFlag) continue;
        JsonLine line;
        files.push_back(AddFileRecord(line, n, f).Text());
    }
    std::vector<std::string> alarmTypes;
    for (uint16_t type : kTimelineAlarmTypes)
        alarmTypes.push_back(
            JsonLine().Add("type", static_cast<unsigned>(type)).Add("name", AlarmTypeName(type)).Text());
    return Ok(JsonLine()
                  .AddRaw("alarm_types", JsonArray(alarmTypes))
                  .Add("version", index.header.m_u32Version)
                  .Add("file_sum", index.header.m_u32RecordFileSum)
                  .Add("file_used", index.header.m_u32RecordFileUsed)
                  .Add("current_file", index.header.m_u32FileInfoHeadNo)
                  .AddRaw("files", JsonArray(files)));
}

ApiReply ApiCheck(const std::string &cardDir, const ApiQuery &query) {
    ApiParams params(query, {"frames"});
    bool frames = false;
    if (!params.Flag("frames", &frames)) return params.Error();
    std::vector<IndexProblem> problems;
    if (CheckCardIndex(cardDir, &problems) != 0) return ApiError(kHttpServerError, problems.front().text);
    if (frames) CheckCardFrames(cardDir, &problems);
    std::vector<std::string> rows;
    for (const IndexProblem &p : problems) rows.push_back(JsonString(FormatIndexProblem(p)));
    return Ok(JsonLine().AddBool("consistent", problems.empty()).AddRaw("problems", JsonArray(rows)));
}

namespace {

constexpr size_t kMaxStatusBytes = 4096;  // the recorder's object is a few hundred bytes

bool SamePlace(const std::string &a, const std::string &b) {
    char realA[PATH_MAX], realB[PATH_MAX];
    return realpath(a.c_str(), realA) != nullptr && realpath(b.c_str(), realB) != nullptr &&
           std::string(realA) == realB;
}

// The file's text, at most kMaxStatusBytes; false when it cannot be read.
bool ReadStatusFile(std::string *text) {
    const FileIoOps &io = FileIo();
    int fd = io.open(StatusFilePath().c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return false;
    char buf[kMaxStatusBytes];
    ssize_t got = io.read(fd, buf, sizeof buf);
    io.close(fd);
    if (got <= 0) return false;
    text->assign(buf, static_cast<size_t>(got));
    return true;
}

}  // namespace

ApiReply ApiRecorderStatus(const std::string &cardDir, const ApiQuery &query) {
    ApiParams params(query, {});
    if (!params.Ok()) return params.Error();
    if (!SamePlace(cardDir, PlatformPath(kCardMountPoint)))
        return ApiError(kHttpNotFound, "not the camera's own card: no recorder status");
    std::string text;
    if (!ReadStatusFile(&text)) return ApiError(kHttpNotFound, "the recorder publishes no status");
    return ApiReply{kHttpOk, text};
}
