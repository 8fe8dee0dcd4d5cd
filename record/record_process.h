// The daemon's process pieces: the stop signal handler, the watchdog
// thread and the adapter through which the stream reader hands frames to
// the frame writer.
#pragma once

#include <cstdint>

#include "ipc/av_stream.h"

inline constexpr uint32_t kRecordMsgAVType = 5;       // consumer type of the stream reader
inline constexpr int kRecordCameraType = 1;           // common camera-access table
inline constexpr int kRecordProcessArgument = 6;      // PROCESS_AVRECORD
inline constexpr uint32_t kRecordWatchDogSource = 7;  // heartbeat slot
inline constexpr int kDebugOutputPort = 409;

// Handler of SIGHUP, SIGINT, SIGQUIT and SIGTERM: the first of them asks for
// a stop; later signals are ignored.
void SignalProcess(int signo);

// Installs SignalProcess for signals 1, 2, 3 and 15.
void InstallSignalHandlers();

// Starts WatchDogThread (not detached, never joined); returns 0.
int WatchDogThreadStart();

// Every 2 s: debug-port switch check and the heartbeat. Never returns.
void *WatchDogThread(void *arg);

// FrameCallback of the stream reader: JPEG pictures are dropped, every other
// frame goes to the frame writer (channel first).
int RecordFrameCallback(uint32_t avSource, uint32_t videoIndex, uint8_t *payload, AVDataInfo *info);

// Status function of the stream reader: every channel is always read.
int RecordStatusCallback(uint32_t videoIndex);
