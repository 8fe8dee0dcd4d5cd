#include "record/alarm_event_logic.h"

#include <cstring>

#include "avrecord_lib/record_builder.h"

namespace {

constexpr uint32_t kTableSize = 10;
constexpr uint32_t kPreRecordTable[kTableSize] = {0, 5, 10, 15, 20, 25, 30, 10, 0, 0};
constexpr uint32_t kRecordDelayTable[kTableSize] = {10, 5, 10, 30, 60, 120, 300, 600, 0, 0};

struct WatchedSource {
    uint32_t recordType;  // segment record type
    uint32_t source;      // alarm record entry
    uint8_t alarmType;    // alarm type written into the event records
};
constexpr WatchedSource kWatchedSources[] = {{1, 2, 1}, {2, 0, 4}, {3, kAlarmCombinedSource, 8}};

constexpr uint32_t kMotionSource = 0;
constexpr uint32_t kSecondSource = 2;

uint32_t Distance(uint32_t a, uint32_t b) { return a > b ? a - b : b - a; }

}  // namespace

uint32_t PreRecordSeconds(uint32_t index) { return index < kTableSize ? kPreRecordTable[index] : 0; }

uint32_t RecordDelaySeconds(uint32_t index) { return index < kTableSize ? kRecordDelayTable[index] : 0; }

bool AlarmSourceForRecordType(uint32_t recordType, uint32_t *source, uint8_t *alarmType) {
    for (const WatchedSource &watched : kWatchedSources) {
        if (watched.recordType != recordType) continue;
        *source = watched.source;
        *alarmType = watched.alarmType;
        return true;
    }
    return false;
}

uint32_t AlarmSourceState(const AlarmShmEntry *alarms, uint32_t source) {
    if (source >= kAlarmSourceCount) return 0;
    if (source == kAlarmCombinedSource && alarms[kMotionSource].Status != 0 &&
        alarms[kSecondSource].Status != 0) {
        return 1;
    }
    return alarms[source].Status;
}

AlarmEventTracker::AlarmEventTracker() { Reset(); }

void AlarmEventTracker::Reset() {
    std::memset(&info_, 0, sizeof info_);
    std::memset(&entry_, 0, sizeof entry_);
    std::memset(open_, 0, sizeof open_);
    lastFlush_ = lastSeen_ = eventEnd_ = duration_ = 0;
    sizeAtStart_ = framesAtStart_ = 0;
    preRecordIndex_ = 0;
    delayIndex_ = 0;
}

AlarmAction AlarmEventTracker::Turn(const AlarmTurn &turn) {
    if (turn.preRecordTime != kPreRecordKeepIndex) preRecordIndex_ = turn.preRecordTime;
    delayIndex_ = turn.recordDelay;

    uint32_t source = 0;
    uint8_t alarmType = 0;
    if (!AlarmSourceForRecordType(turn.recordType, &source, &alarmType)) return AlarmAction::kNone;

    bool active = AlarmSourceState(turn.alarms, source) != 0;
    if (active && open_[source] == 0) {
        open_[source] = 1;
        BeginEvent(turn, alarmType);
        return AlarmAction::kNone;
    }
    if (active) {
        lastSeen_ = turn.now;
        return AlarmAction::kNone;
    }
    if (open_[source] == 0) return AlarmAction::kNone;

    AlarmAction action = TailTurn(turn);
    if (action == AlarmAction::kClose) open_[source] = 0;
    return action;
}

void AlarmEventTracker::BeginEvent(const AlarmTurn &turn, uint8_t alarmType) {
    lastSeen_ = lastFlush_ = turn.now;
    uint32_t preRecord = PreRecordSeconds(preRecordIndex_);
    uint32_t sectionStart = turn.section->m_u32StartTime;
    uint32_t start = sectionStart;
    if (sectionStart < turn.now && turn.now - sectionStart >= preRecord &&
        turn.preRecordTime != kPreRecordKeepIndex) {
        start = turn.now - preRecord;
    }

    if (info_.m_u32HeadFlag == kAlarmEventInfoFlag) {
        uint32_t lastEnd = AlarmLastEventEnd(info_);
        if (Distance(start, lastEnd) <= preRecord && start <= lastEnd) start = lastEnd;
        if (start < info_.m_u32StartTime) AV_AlarmEventFileInfoSetStartTime(&info_, start);
    } else {
        AV_AlarmEventFileInfoInit(&info_, turn.file->m_u32FileNo, start, alarmType);
    }
    sizeAtStart_ = turn.section->m_u32SectionSize;
    framesAtStart_ = turn.section->m_u32VideoFrameSum;
    AV_AlarmEventEntryInit(&info_, &entry_, start, alarmType);
    AV_AlarmEventFileInfoNextEvent(&info_);
}

AlarmAction AlarmEventTracker::TailTurn(const AlarmTurn &turn) {
    eventEnd_ = turn.now;
    if (entry_.m_u32EndTime <= eventEnd_) AV_AlarmEventEntrySetEndTime(&entry_, eventEnd_);
    if (entry_.m_u32EndTime != 0) AlarmLastEventEnd(info_) = entry_.m_u32EndTime;
    if (info_.m_u32EndTime <= eventEnd_) AV_AlarmEventFileInfoSetEndTime(&info_, eventEnd_);

    const SectionInfoHead &section = *turn.section;
    if (section.m_u32SectionSize != 0) {
        AV_AlarmEventEntrySetDataSize(&entry_, Distance(section.m_u32SectionSize, sizeAtStart_));
        AV_AlarmEventEntrySetFrameSum(&entry_, Distance(section.m_u32VideoFrameSum, framesAtStart_));
        AV_AlarmEventEntrySetFrameRate(&entry_, section.m_u8FrameRate);
    }

    duration_ = Distance(entry_.m_u32EndTime, lastSeen_);
    if (duration_ < RecordDelaySeconds(delayIndex_)) {
        if (lastFlush_ <= eventEnd_ && Distance(entry_.m_u32EndTime, lastFlush_) > kAlarmFlushInterval) {
            lastFlush_ = eventEnd_;
            return AlarmAction::kFlushTail;
        }
        return AlarmAction::kNone;
    }
    lastFlush_ = 0;
    return AlarmAction::kClose;
}
