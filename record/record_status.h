// The daemon's published status: one JSON object in /tmp/avrecord-status.json
// (under AVRECORD_ROOT), replaced whole (written beside it, then renamed) on
// every change of state and once a second while the daemon runs, so that
// the camera's other programs can say how recording goes without reading
// the log.
#pragma once

#include <cstdint>
#include <string>

enum class RecordState : uint32_t {
    kRecording,     // a run is open
    kWaiting,       // nothing due by the schedule
    kNoCard,        // no card mounted, or its device is gone
    kCardReadOnly,  // the card's file system refuses writes
    kCardFailing,   // the card fails writes or flushes
    kCardFull,      // every file used and overwriting is off
    kClockInvalid,  // the clock reads a time the card cannot hold
    kIndexInvalid,  // the card's index cannot be read or is not ours
    kStopping,      // a stop was requested
};

// "recording", "waiting", "no-card", ...
const char *RecordStateName(RecordState state);

// What the status file says; times are seconds since 1970 UTC, 0 for none.
struct RecordStatus {
    RecordState state;
    uint32_t since;          // when this state began
    uint32_t updated;        // when this was written
    std::string cause;       // why the state began
    uint32_t lastFrame;      // newest frame known on the card
    uint32_t framesWritten;  // video frames since start
    uint32_t framesLost;     // video frames failed writes cost since start
    uint32_t writeErrors;    // failed writes and flushes since start
    uint32_t oldest;         // start of the oldest recording on the card
    uint32_t newest;         // end of the newest
    double cardHours;        // hours the card holds at the current rate, < 0 when unknown
};

// The JSON text of a status (one line, with a newline).
std::string RecordStatusJson(const RecordStatus &status);

// Enters a state. A change is logged once with its cause and published at
// once; the same state again changes nothing.
void RecordStatusSet(RecordState state, const char *cause);

// The state in force.
RecordState RecordStatusState();

// Reads the span of recordings from the card's index (the oldest file
// record in use and the current one); the record run calls it as it opens.
void RecordStatusReadSpan();

// Publishes the status now; 0, or -1 when the file could not be replaced.
int RecordStatusPublish();

// Starts the thread that publishes once a second; 0.
int RecordStatusStart();
