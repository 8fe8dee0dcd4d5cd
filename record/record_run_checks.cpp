#include "record/record_run_checks.h"

#include "avrecord_lib/index_records.h"
#include "record/record_clock.h"

namespace {

constexpr int kDayEndHour = 23;
constexpr int kDayEndMinute = 59;
constexpr int kDayEndSecond = 59;

bool IsDayEnd(const RunTurn &turn) {
    return IsLastSecondOfDay(turn.hour, turn.minute, turn.second) &&
           turn.sectionEndTime > uint64_t{turn.sectionStartTime} + 1;
}

}  // namespace

bool IsLastSecondOfDay(int hour, int minute, int second) {
    return hour == kDayEndHour && minute == kDayEndMinute && second == kDayEndSecond;
}

bool ScheduleSegmentOver(uint8_t dayMode, int nowSec, int startSec, int endSec) {
    return dayMode == TIME_SCOPE_DIFF && (nowSec < startSec || nowSec >= endSec);
}

bool ClockJumped(uint32_t sinceBootDuration, int32_t currentDuration) {
    int64_t drift = static_cast<int64_t>(sinceBootDuration) - currentDuration;
    if (drift < 0) drift = -drift;
    return drift > kClockJumpLimit;
}

RunEnd RecordRunCheck(const RunParams &start, uint32_t stream, const RunTurn &turn) {
    const RunParams &now = turn.now;
    // The section already ended at its last frame known written.
    if (turn.cardError != 0) return RunEnd::kCardFailing;
    if (!turn.clockInCardRange) return RunEnd::kClockOutOfRange;
    if (now.encoding == kEncodingMjpeg) return RunEnd::kMjpeg;
    if (now.audioEnable != start.audioEnable) return RunEnd::kAudioEnable;
    if (start.audioEnable == 1 && now.audioEncoding != start.audioEncoding) return RunEnd::kAudioEncoding;
    if (now.encoding != start.encoding) return RunEnd::kVideoEncoding;
    if (now.frameRate != start.frameRate) return RunEnd::kFrameRate;
    // A stream type naming no stream is no change of stream.
    if (turn.recordStreamType < kSysStreamCount && turn.recordStreamType != stream)
        return RunEnd::kStreamType;
    if (now.width != start.width || now.height != start.height) return RunEnd::kResolution;
    if (turn.recordEnable == 0) return RunEnd::kRecordDisabled;
    if (now.codecMode != start.codecMode) return RunEnd::kCodecMode;
    if (now.rotate != start.rotate) return RunEnd::kRotate;
    int nowSec = ScheduleSecondsOfDay(turn.hour, turn.minute);
    if (ScheduleSegmentOver(turn.dayMode, nowSec, turn.segmentStartSec, turn.segmentEndSec)) {
        return RunEnd::kScheduleOver;
    }
    if (IsDayEnd(turn)) return RunEnd::kDayEnd;
    if (ClockJumped(turn.sinceBootDuration, turn.currentDuration)) return RunEnd::kClockJump;
    if (turn.fileDataSize >= kMediaFileFullSize) return RunEnd::kFileFull;
    if (turn.stopRequested == 1) return RunEnd::kStop;
    return RunEnd::kNone;
}
