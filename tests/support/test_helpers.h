// Helpers of the tools tests: a fixed time zone, local times, and running
// the independent command-line checkers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "support/scoped_zone.h"
#include "tools/calendar_time.h"

// Local time on a day of March 2026.
inline uint32_t Local(int day, int hour, int minute = 0, int second = 0) {
    return static_cast<uint32_t>(LocalSeconds(DateTime{2026, 3, day, hour, minute, second, 0}));
}

// True when the command-line tool is installed.
inline bool HaveTool(const char *name) {
    return std::system((std::string("command -v ") + name + " >/dev/null").c_str()) == 0;
}

// What the shell command prints on standard output.
inline std::string RunCommand(const std::string &command) {
    std::string out;
    FILE *p = popen(command.c_str(), "r");
    if (p == nullptr) return out;
    char buf[256];
    while (fgets(buf, sizeof(buf), p) != nullptr) out += buf;
    pclose(p);
    return out;
}
