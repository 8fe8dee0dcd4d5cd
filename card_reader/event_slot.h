// The alarm-event slot of one media file in event000.bin, judged once for
// the index check and the recovery. The recorder leaves a slot either
// unused (no "AEMF") or naming its own file with 1 to 1024 events whose
// entries belong to it, in order. It never writes a slot counting no event
// (that write is refused) and the search cannot read the list of one, so
// such a slot is damaged like any other.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "avrecord_lib/index_records.h"

struct EventSlot {
    bool used = false;                     // the slot carries "AEMF"
    AlarmEventInfo info{};                 // as read
    std::vector<AlarmEventEntry> entries;  // the list, when whole
    std::string damage;                    // why it cannot be used; empty when whole
};

// Reads and judges the slot of media file fileNo. An unreadable slot reads
// as unused (the file is shorter than the card's: nothing was recorded).
EventSlot ReadEventSlot(int eventFd, uint32_t fileNo);
