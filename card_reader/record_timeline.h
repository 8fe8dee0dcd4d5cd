// A picture of one recorded day: an axis of its local hours, one bar per recording
// section and, in a second lane, the alarm events coloured by alarm type,
// as SVG. Hovering a bar shows its name, times and file number.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct TimelineItem {
    std::string name;    // "hi%06d_%06d.mp4" or "he%06d_%06d.mp4"
    uint32_t start;      // UTC seconds
    uint32_t end;        // UTC seconds
    uint16_t alarmType;  // 1, 4 or 8 for events; 0 for sections
};

struct RecordTimeline {
    std::string day;                     // "YYYY-MM-DD", local
    uint32_t dayStart;                   // local midnight
    uint32_t dayEnd;                     // next local midnight
    std::vector<TimelineItem> sections;  // normal recordings
    std::vector<TimelineItem> events;    // alarm events
};

// Alarm types drawn in the event lane.
inline constexpr uint16_t kTimelineAlarmTypes[] = {1, 4, 8};

// What an alarm type stands for, as the schedule's record types watch
// them: the alarm input (1), the motion detector (4), or both at once (8).
// "alarm type N" for any other type.
std::string AlarmTypeName(uint16_t type);

// Collects the sections and alarm events of the local day from the card
// mounted at cardDir. 0, or -1 when the card's index or event file cannot
// be searched.
int RecordTimelineLoad(const char *cardDir, int year, int month, int day, RecordTimeline *timeline);

// The SVG document of the timeline.
std::string RecordTimelineSvg(const RecordTimeline &timeline);
