#include "replay/replay_list.h"

#include <algorithm>

#include "replay/card_catalog.h"
#include "replay/rtsp_range.h"

namespace {

// Sections this close join into one span (the recorder starts a section
// that follows at once on the previous end time).
constexpr uint32_t kJoinSeconds = 1;

// The part of [from, to] inside [start, end]: a span that only touches the
// range is left out, a moment inside it is kept.
void AddClipped(uint32_t from, uint32_t to, uint8_t alarm, uint32_t start, uint32_t end,
                std::vector<ReplaySpan> *spans) {
    uint32_t low = std::max(from, start), high = std::min(to, end);
    if (low < high || (low == high && from == to)) spans->push_back({low, high, alarm});
}

}  // namespace

int ReplayListSpans(const ReplayCard &card, uint32_t start, uint32_t end, std::vector<ReplaySpan> *spans) {
    CardCatalog catalog;
    spans->clear();
    if (CatalogLoad(card.dir, &catalog) != 0) return -1;
    bool open = false;
    uint32_t from = 0, to = 0, newest = 0;
    for (const CatalogSection &c : catalog.sections) {
        const SectionInfoHead &s = c.stSection;
        newest = std::max(newest, s.m_u32EndTime);
        if (open && s.m_u32StartTime <= to + kJoinSeconds) {
            to = std::max(to, s.m_u32EndTime);
            continue;
        }
        if (open) AddClipped(from, to, 0, start, end, spans);
        open = true;
        from = s.m_u32StartTime;
        to = s.m_u32EndTime;
    }
    if (open) AddClipped(from, to, 0, start, end, spans);
    std::vector<CatalogAlarm> alarms;
    CatalogLoadAlarms(card.dir, catalog, &alarms);
    for (const CatalogAlarm &a : alarms) {
        // An event still going on lasts, so far, as long as the recording.
        uint32_t last = a.u32End != 0 ? a.u32End : std::max(a.u32Start, newest);
        AddClipped(a.u32Start, last, a.u8Type, start, end, spans);
    }
    std::stable_sort(spans->begin(), spans->end(),
                     [](const ReplaySpan &a, const ReplaySpan &b) { return a.u32Start < b.u32Start; });
    return 0;
}

std::string ReplaySpansJson(const std::vector<ReplaySpan> &spans) {
    std::string json = "[";
    for (const ReplaySpan &s : spans) {
        if (json.size() > 1) json += ",";
        json += "\n{\"start\": \"" + RtspFormatUrlTime(uint64_t{s.u32Start} * kUsPerSecond) +
                "\", \"duration\": " + std::to_string(s.u32End - s.u32Start);
        if (s.u8Alarm != 0) json += ", \"alarm\": " + std::to_string(s.u8Alarm);
        json += "}";
    }
    return json + "\n]\n";
}
