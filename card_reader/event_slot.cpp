#include "card_reader/event_slot.h"

#include "avrecord_lib/record_index.h"

namespace {

std::string Text(const char *format, uint32_t value) {
    char text[96];
    snprintf(text, sizeof text, format, value);
    return text;
}

// Why the slot's own fields cannot be right; empty when they can.
std::string SlotDamage(const AlarmEventInfo &info, uint32_t fileNo) {
    if (info.m_u32AlarmFileNo != fileNo) return Text("event slot names file %u", info.m_u32AlarmFileNo);
    if (info.m_u32AlarmEventSum == 0) return "event slot counts no alarm event";
    if (info.m_u32AlarmEventSum > kMaxAlarmEventSum) return Text("%u alarm events", info.m_u32AlarmEventSum);
    return "";
}

bool IsEntryOf(const AlarmEventEntry &entry, uint32_t fileNo, uint32_t eventNo) {
    return entry.m_u32HeadFlag == kAlarmEventEntryFlag && entry.m_u16EventNo == eventNo &&
           entry.m_u16FileNo == static_cast<uint16_t>(fileNo);
}

}  // namespace

EventSlot ReadEventSlot(int eventFd, uint32_t fileNo) {
    EventSlot slot;
    if (AV_AlarmEventFileInfoRead(eventFd, fileNo, &slot.info) < 0 ||
        slot.info.m_u32HeadFlag != kAlarmEventInfoFlag)
        return slot;
    slot.used = true;
    slot.damage = SlotDamage(slot.info, fileNo);
    if (!slot.damage.empty()) return slot;
    AlarmEventInfo clamped = slot.info;  // the list read may lower the count
    std::vector<AlarmEventEntry> entries(kMaxAlarmEventListRead);
    if (AV_AlarmEventEntryListRead(eventFd, &clamped, entries.data()) < 0) {
        slot.damage = "alarm event list unreadable";
        return slot;
    }
    entries.resize(clamped.m_u32AlarmEventSum);
    for (uint32_t i = 0; i < entries.size(); ++i) {
        if (!IsEntryOf(entries[i], fileNo, i)) {
            slot.damage = Text("alarm event %u is not an entry of this file", i);
            return slot;
        }
    }
    slot.entries = std::move(entries);
    return slot;
}
