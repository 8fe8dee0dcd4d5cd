// Decisions of the alarm-event thread, free of threads, clocks and files:
// one call per 80 ms turn with the thread clock T, the alarm states and the
// section counters; the caller writes the records when told to flush.
//
// An event begins a pre-record time before the alarm is first seen (never
// before the section start, never inside the previous event's tail) and
// ends a record-delay time after it was last seen; an alarm returning
// within the delay keeps the event open.
#pragma once

#include <cstdint>

#include "avrecord_lib/index_records.h"
#include "ipc/alarm_shm.h"

inline constexpr uint32_t kAlarmCombinedSource = 14;  // sources 0 and 2 together
inline constexpr uint8_t kPreRecordKeepIndex = 10;    // keep the last index, pre-record off
inline constexpr uint32_t kAlarmFlushInterval = 19;   // a tail is written every 20 s

// Seconds for the pre-record index (ucpreRecordTime) and the record-delay
// index (ucrecordDelay); 0 for an index off the table.
uint32_t PreRecordSeconds(uint32_t index);
uint32_t RecordDelaySeconds(uint32_t index);

// The alarm source a segment record type watches and the alarm type its
// events carry; false for record type 0 or an unknown one.
bool AlarmSourceForRecordType(uint32_t recordType, uint32_t *source, uint8_t *alarmType);

// State word of a source in the alarm record (kAlarmSourceCount entries);
// source 14 is also active when sources 0 and 2 are both active.
uint32_t AlarmSourceState(const AlarmShmEntry *alarms, uint32_t source);

// What the caller has to do after a turn.
enum class AlarmAction {
    kNone,       // nothing to write
    kFlushTail,  // the event is still open; write the records (periodic tail flush)
    kClose,      // the event ended; write the records
};

// Inputs of one turn.
struct AlarmTurn {
    uint32_t now;                    // thread clock T
    uint32_t recordType;             // record type byte of the running segment (0: mark nothing)
    const AlarmShmEntry *alarms;     // the alarm record, kAlarmSourceCount entries
    uint8_t preRecordTime;           // SysInfo ucpreRecordTime as read this turn
    uint8_t recordDelay;             // SysInfo ucrecordDelay as read this turn
    const FileInfoHead *file;        // current file record
    const SectionInfoHead *section;  // current section record
};

class AlarmEventTracker {
public:
    AlarmEventTracker();

    // Forgets everything, as at the start of a fresh media file.
    void Reset();

    // One turn of the thread loop.
    AlarmAction Turn(const AlarmTurn &turn);

    AlarmEventInfo &info() { return info_; }
    AlarmEventEntry &entry() { return entry_; }
    const AlarmEventInfo &info() const { return info_; }
    const AlarmEventEntry &entry() const { return entry_; }

    uint32_t recordDelaySeconds() const { return RecordDelaySeconds(delayIndex_); }
    uint32_t eventEnd() const { return eventEnd_; }  // end of the tail turn just handled
    uint32_t duration() const { return duration_; }  // seconds since the alarm was last seen

private:
    void BeginEvent(const AlarmTurn &turn, uint8_t alarmType);
    AlarmAction TailTurn(const AlarmTurn &turn);

    AlarmEventInfo info_;               // event slot of the current media file
    AlarmEventEntry entry_;             // current event
    uint32_t open_[kAlarmSourceCount];  // an event is open for the source
    uint32_t lastFlush_;                // time of the last tail write
    uint32_t lastSeen_;                 // time the alarm was last seen
    uint32_t eventEnd_;                 // end of the tail so far
    uint32_t duration_;                 // tail length so far
    uint32_t sizeAtStart_;              // section bytes when the event began
    uint32_t framesAtStart_;            // section video frames when the event began
    uint32_t preRecordIndex_;           // pre-record index in force
    uint32_t delayIndex_;               // record-delay index in force
};

// End of the most recently closed event, kept in the reserved word at 0x14
// of the event slot.
inline uint32_t &AlarmLastEventEnd(AlarmEventInfo &info) { return info.m_u32Reserved0; }
