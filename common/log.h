// Log output: leveled lines "[process][time][Level]: message" on standard
// error, silent until LogEnable; and a microsecond-stamped line writer.
#pragma once

#define AVR_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

int LogTrace(const char *format, ...) AVR_PRINTF(1, 2);
int LogError(const char *format, ...) AVR_PRINTF(1, 2);
int LogWarn(const char *format, ...) AVR_PRINTF(1, 2);

// Switches the leveled functions on for the rest of the process; both
// arguments are ignored.
int LogEnable(const char *module, int level);

// Local time as "YYYY-MM-DD HH:MM:SS", written with snprintf(buf, size - 1).
int LogTimeString(char *buf, int size);

// The process name from /proc/self/status, looked up once per process.
int LogProcessName(char *buf, int size);

// "..................[<time>.<usec> ] <text>" on standard error, never gated.
int LogStampLine(const char *text);

// Test hooks: forget the enable flag and the looked-up process name, and
// read the status file from another path ("/proc/self/status" by default).
void LogResetForTest();
void LogSetStatusPathForTest(const char *path);
