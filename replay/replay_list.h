// What the card holds over a time range, as the HTTP listing shows it: one
// span per stretch of recording without a gap, and the alarm events.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "replay/replay_source.h"

struct ReplaySpan {
    uint32_t u32Start;  // card seconds (UTC)
    uint32_t u32End;
    uint8_t u8Alarm;  // 0 for recording, else the alarm type of an alarm event
};

// The recording spans and alarm events that touch [start, end] (card
// seconds), cut to the range, by start time. 0, or -1 when the card's index
// cannot be read.
int ReplayListSpans(const ReplayCard &card, uint32_t start, uint32_t end, std::vector<ReplaySpan> *spans);

// The JSON array of the spans: {"start": RFC 3339 UTC, "duration": seconds},
// with "alarm": type on alarm events.
std::string ReplaySpansJson(const std::vector<ReplaySpan> &spans);
