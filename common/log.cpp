#include "common/log.h"

#include <sys/time.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

namespace {

constexpr int kTimeStringSize = 50;
constexpr int kProcessNameSize = 64;
constexpr int kMessageBufferSize = 20480;
constexpr int kStatusLineSize = 128;
constexpr int kStampSize = 32;

char g_processName[kProcessNameSize] = "unknown";
std::atomic<uint32_t> g_processNameRead{0};
std::atomic<uint32_t> g_logEnabled{0};
// One message buffer per thread: threads formatting at once cannot mix texts.
thread_local char t_message[kMessageBufferSize];
std::string g_statusPath = "/proc/self/status";

int LogLine(const char *level, const char *format, va_list args) {
    char timeString[kTimeStringSize] = {0};
    LogTimeString(timeString, kTimeStringSize);
    LogProcessName(g_processName, kProcessNameSize);
    if (g_logEnabled.load(std::memory_order_relaxed) == 0) return 0;
    vsnprintf(t_message, kMessageBufferSize - 1, format, args);
    fprintf(stderr, "[%s][%s][%s]: %s\n", g_processName, timeString, level, t_message);
    return 0;
}

}  // namespace

#define AVR_LOG_BODY(level)              \
    va_list args;                        \
    va_start(args, format);              \
    LogLine(level, format, args);        \
    va_end(args);                        \
    return 0

int LogTrace(const char *format, ...) { AVR_LOG_BODY("Trace"); }
int LogError(const char *format, ...) { AVR_LOG_BODY("Error"); }
int LogWarn(const char *format, ...) { AVR_LOG_BODY("Warn"); }

int LogEnable(const char * /*module*/, int /*level*/) {
    g_logEnabled.store(1, std::memory_order_relaxed);
    return 0;
}

int LogTimeString(char *buf, int size) {
    time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    snprintf(buf, size - 1, "%04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return 0;
}

int LogProcessName(char *buf, int size) {
    if (g_processNameRead.exchange(1, std::memory_order_relaxed) != 0) return 0;
    char name[kStatusLineSize] = "unknown";
    FILE *file = fopen(g_statusPath.c_str(), "r");
    if (file == nullptr) return 0;
    char line[kStatusLineSize] = {0};
    if (fgets(line, kStatusLineSize, file) != nullptr) {
        sscanf(line, "Name: %127s", name);
        snprintf(buf, size - 1, "%s", name);
    }
    fclose(file);
    return 0;
}

int LogStampLine(const char *text) {
    struct timeval now {};
    if (gettimeofday(&now, nullptr) != 0) return -1;
    char seconds[kStampSize] = {0};
    char stamped[kStampSize] = {0};
    time_t wall = now.tv_sec;
    struct tm local {};
    if (localtime_r(&wall, &local) != nullptr) {
        strftime(seconds, sizeof seconds, "%Y-%m-%d %H:%M:%S", &local);
        if (snprintf(stamped, sizeof stamped, "%s.%06lu", seconds, static_cast<unsigned long>(now.tv_usec)) < 0) {
            stamped[0] = '\0';
        }
    }
    fprintf(stderr, "..................[%s ] %s\n", stamped, text);
    return 0;
}

void LogResetForTest() {
    g_logEnabled.store(0, std::memory_order_relaxed);
    g_processNameRead.store(0, std::memory_order_relaxed);
    snprintf(g_processName, sizeof g_processName, "%s", "unknown");
}

void LogSetStatusPathForTest(const char *path) { g_statusPath = path; }
