#include "card_reader/record_timeline.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <memory>

#include "tools/calendar_time.h"
#include "tools/seek_file.h"

namespace {

constexpr int kWidth = 1240;
constexpr int kPlotLeft = 100;
constexpr int kPlotWidth = 1110;
constexpr int kSectionLaneY = 50;
constexpr int kEventLaneY = 95;
constexpr int kLaneHeight = 30;
constexpr int kAxisY = 135;
constexpr int kLegendY = 175;
constexpr int kLegendStep = 190;
constexpr int kHeight = 200;
constexpr uint32_t kSecondsPerHour = 3600;
constexpr uint32_t kNormalDaySeconds = 24 * kSecondsPerHour;
constexpr int kMajorTickHours = 6;
constexpr double kMinBarWidth = 2.0;  // short events stay visible
constexpr const char kSectionColour[] = "#3b7dd8";
constexpr const char kFont[] = "font-family=\"sans-serif\" font-size=\"12\"";

constexpr uint16_t kAlarmTypeInput = 1;
constexpr uint16_t kAlarmTypeMotion = 4;
constexpr uint16_t kAlarmTypeBoth = 8;

const char *AlarmColour(uint16_t type) {
    switch (type) {
        case kAlarmTypeInput:
            return "#d62728";
        case kAlarmTypeMotion:
            return "#ff7f0e";
        case kAlarmTypeBoth:
            return "#9467bd";
        default:
            return "#7f7f7f";
    }
}

std::string Format(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char *format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

std::string Escape(const std::string &text) {
    std::string out;
    for (char c : text) {
        if (c == '&') {
            out += "&amp;";
        } else if (c == '<') {
            out += "&lt;";
        } else if (c == '>') {
            out += "&gt;";
        } else if (c == '"') {
            out += "&quot;";
        } else {
            out += c;
        }
    }
    return out;
}

double XOf(const RecordTimeline &timeline, uint32_t when) {
    uint32_t clamped = std::clamp(when, timeline.dayStart, timeline.dayEnd);
    double span = timeline.dayEnd > timeline.dayStart ? timeline.dayEnd - timeline.dayStart : 1;
    return kPlotLeft + kPlotWidth * (clamped - timeline.dayStart) / span;
}

// "file 3, section 12" from "hi000003_000012.mp4"; "file 0, event 2" from
// "he000000_000002.mp4".
std::string NumbersOf(const std::string &name) {
    unsigned file = 0, record = 0;
    if (name.size() < 2 || std::sscanf(name.c_str() + 2, "%6u_%6u", &file, &record) != 2) return "";
    return Format(", file %u, %s %u", file, name[1] == 'e' ? "event" : "section", record);
}

std::string Bar(const RecordTimeline &timeline, const TimelineItem &item, int y, const char *cls,
                const char *colour) {
    double x = XOf(timeline, item.start);
    double width = std::max(kMinBarWidth, XOf(timeline, item.end) - x);
    std::string label =
        item.name + " " + LocalClockText(item.start) + "-" + LocalClockText(item.end) + NumbersOf(item.name);
    if (item.alarmType != 0) label += ", " + AlarmTypeName(item.alarmType);
    // A thin white edge keeps back-to-back sections apart.
    return Format(
               "<rect class=\"%s\" x=\"%.2f\" y=\"%d\" width=\"%.2f\" height=\"%d\" fill=\"%s\" "
               "stroke=\"#fff\" stroke-width=\"0.5\">",
               cls, x, y, width, kLaneHeight, colour) +
           "<title>" + Escape(label) + "</title></rect>\n";
}

// Hours of the day on the local clock, one tick per hour that passes: a day
// the clocks go forward has 23, one they go back 25 (its 02 shows twice).
// The day's end is written 24.
std::string Axis(const RecordTimeline &timeline) {
    std::string svg;
    for (uint32_t at = timeline.dayStart;; at += kSecondsPerHour) {
        bool end = at >= timeline.dayEnd;
        if (end) at = timeline.dayEnd;
        DateTime t = LocalDateTime(at);
        std::string label = end ? "24" : Format("%02d", t.hour);
        if (!end && t.minute != 0) label += Format(":%02d", t.minute);
        bool major = end || (t.minute == 0 && t.hour % kMajorTickHours == 0);
        double x = XOf(timeline, at);
        svg += Format("<line x1=\"%.2f\" y1=\"%d\" x2=\"%.2f\" y2=\"%d\" stroke=\"%s\"/>\n", x,
                      kSectionLaneY - 5, x, kAxisY, major ? "#999" : "#ddd");
        svg += Format("<text class=\"hour\" x=\"%.2f\" y=\"%d\" text-anchor=\"middle\" %s>", x, kAxisY + 15,
                      kFont) +
               label + "</text>\n";
        if (end) break;
    }
    svg += Format("<text x=\"10\" y=\"%d\" %s>Recordings</text>\n", kSectionLaneY + 20, kFont);
    svg += Format("<text x=\"10\" y=\"%d\" %s>Alarms</text>\n", kEventLaneY + 20, kFont);
    return svg;
}

// " (25 hours)" on a day the clocks change, else nothing.
std::string DayLength(const RecordTimeline &timeline) {
    uint32_t seconds = timeline.dayEnd - timeline.dayStart;
    if (seconds == kNormalDaySeconds) return "";
    return Format(" (%u hours)", (seconds + kSecondsPerHour / 2) / kSecondsPerHour);
}

std::string Legend() {
    std::string svg = Format("<rect x=\"%d\" y=\"%d\" width=\"12\" height=\"12\" fill=\"%s\"/>", kPlotLeft,
                             kLegendY - 10, kSectionColour);
    svg += Format("<text x=\"%d\" y=\"%d\" %s>section</text>\n", kPlotLeft + 16, kLegendY, kFont);
    int x = kPlotLeft + 90;
    for (uint16_t type : kTimelineAlarmTypes) {
        svg += Format("<rect x=\"%d\" y=\"%d\" width=\"12\" height=\"12\" fill=\"%s\"/>", x, kLegendY - 10,
                      AlarmColour(type));
        svg += Format("<text x=\"%d\" y=\"%d\" %s>", x + 16, kLegendY, kFont) + AlarmTypeName(type) +
               "</text>\n";
        x += kLegendStep;
    }
    return svg;
}

int Collect(const char *cardDir, uint16_t type, const RecordTimeline &timeline, FileListInfo *list,
            std::vector<TimelineItem> *items) {
    if (SeekFileOnCard(cardDir, type, timeline.dayStart, timeline.dayEnd - 1, list) != 0) return -1;
    for (int i = 0; i < list->s32FileNum; ++i) {
        const FileListEntry &e = list->stFileList[i];
        items->push_back(TimelineItem{e.szFileName, e.u32StartTime, e.u32EndTime,
                                      static_cast<uint16_t>(type == kSeekTypeNormal ? 0 : type)});
    }
    return 0;
}

}  // namespace

std::string AlarmTypeName(uint16_t type) {
    switch (type) {
        case kAlarmTypeInput:
            return "alarm input";
        case kAlarmTypeMotion:
            return "motion";
        case kAlarmTypeBoth:
            return "motion and alarm input";
        default:
            return "alarm type " + std::to_string(type);
    }
}

int RecordTimelineLoad(const char *cardDir, int year, int month, int day, RecordTimeline *timeline) {
    if (cardDir == nullptr || timeline == nullptr) return -1;
    int64_t start = LocalSeconds(DateTime{year, month, day, 0, 0, 0, 0});
    int64_t end = LocalSeconds(DateTime{year, month, day + 1, 0, 0, 0, 0});
    if (start < 0 || end <= start) return -1;
    timeline->day = Format("%04d-%02d-%02d", year, month, day);
    timeline->dayStart = static_cast<uint32_t>(start);
    timeline->dayEnd = static_cast<uint32_t>(end);
    timeline->sections.clear();
    timeline->events.clear();
    auto list = std::make_unique<FileListInfo>();
    if (Collect(cardDir, kSeekTypeNormal, *timeline, list.get(), &timeline->sections) != 0) return -1;
    for (uint16_t type : kTimelineAlarmTypes) {
        if (Collect(cardDir, type, *timeline, list.get(), &timeline->events) != 0) return -1;
    }
    return 0;
}

std::string RecordTimelineSvg(const RecordTimeline &timeline) {
    std::string svg = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    svg += Format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" viewBox=\"0 0 %d %d\">\n",
        kWidth, kHeight, kWidth, kHeight);
    svg += Format("<rect width=\"%d\" height=\"%d\" fill=\"white\"/>\n", kWidth, kHeight);
    svg +=
        Format("<text x=\"10\" y=\"22\" %s font-weight=\"bold\">", kFont) + Escape(timeline.day) +
        DayLength(timeline) +
        Format(": %zu sections, %zu alarm events</text>\n", timeline.sections.size(), timeline.events.size());
    svg += Axis(timeline);
    for (const TimelineItem &item : timeline.sections) {
        svg += Bar(timeline, item, kSectionLaneY, "section", kSectionColour);
    }
    for (const TimelineItem &item : timeline.events) {
        std::string cls = Format("alarm alarm-type-%u", item.alarmType);
        svg += Bar(timeline, item, kEventLaneY, cls.c_str(), AlarmColour(item.alarmType));
    }
    svg += Legend();
    svg += "</svg>\n";
    return svg;
}
