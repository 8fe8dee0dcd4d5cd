// Configuration access set-up of a process: its process number, the request
// channel to the configuration server (transfer segment, request mutex,
// request queue) and the attach of SysInfo.
#pragma once

#include "sysconfig/sem_util.h"

// Process numbers. 1 is the configuration server itself (and the number of
// a process whose set-up failed); the recorder is 5.
inline constexpr int kSysServerProcId = 1;
inline constexpr int kSysMaxProcId = 15;
inline constexpr int kAvRecordProcessArg = 6;  // PROCESS_AVRECORD
inline constexpr int kAvRecordProcId = 5;

// Process argument (PROCESS_* value) -> process number; 12 for an unknown
// argument. word receives the PROCESS_* name, or null for an unknown one.
int SysProcIdFromArg(int processArg, const char **word);

// Prepares the request channel for process number procId (1..15). 0, or -1
// with the process number back at 1.
int SysDrvInit(int procId);

// Process number back to 1, request mutex destroyed. Returns 0.
int SysDrvExit();

// The whole configuration initialisation: process number from the
// argument, SysDrvInit, SysInfo attach, configuration semaphore set. 0 or -1.
int SysConfigInit(int processArg);

// Channel state, read by the configuration requests.
int SysGetProcId();  // gSysProcId
int SysGetMsgId();   // request queue identifier
SemHandl_t SysGetRequestSem();
