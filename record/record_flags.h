// Process-wide flags of the record daemon. Each is a 32-bit word polled by
// its readers (20 ms in the run loop, 80 ms in the alarm thread, 1 s in the
// outer loop) and written by one owner at a time; relaxed atomics keep the
// lock-free design free of data races.
#pragma once

#include <atomic>
#include <cstdint>

extern std::atomic<uint32_t> g_bSignalHandled;       // a terminating signal was handled
extern std::atomic<uint32_t> g_bRecordStop;          // stop the run, then leave the process
extern std::atomic<uint32_t> g_u32RecordScopeIndex;  // schedule segment (0..5) running now
extern std::atomic<uint32_t> g_bDayEnd;              // the run was ended at 23:59:59
extern std::atomic<uint32_t> g_bIndexLoaded;         // header and file record read from the card
extern std::atomic<uint32_t> g_bRecording;           // a run is active
extern std::atomic<uint32_t> g_bNewFileInfo;         // the current file record was discarded

// Relaxed load and store, the only access the flags need.
inline uint32_t FlagGet(const std::atomic<uint32_t> &flag) { return flag.load(std::memory_order_relaxed); }
inline void FlagSet(std::atomic<uint32_t> &flag, uint32_t value) {
    flag.store(value, std::memory_order_relaxed);
}

// Sets g_bRecordStop to 1; returns 0.
int StopRecord();

// Sets g_bRecordStop to 0; returns 0. Counterpart of StopRecord, not called
// by the daemon itself.
int StartRecordSet();

// The value of g_bRecordStop.
int GetRecordStopFlag();
