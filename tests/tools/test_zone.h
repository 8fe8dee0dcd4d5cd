// Time zone and calendar helpers of the tools tests.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

#include "tools/calendar_time.h"

// Sets TZ for the life of the object.
class ScopedZone {
public:
    explicit ScopedZone(const char *zone) {
        if (const char *old = std::getenv("TZ")) {
            previous_ = old;
            hadPrevious_ = true;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ScopedZone() {
        if (hadPrevious_) {
            setenv("TZ", previous_.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    ScopedZone(const ScopedZone &) = delete;
    ScopedZone &operator=(const ScopedZone &) = delete;

private:
    std::string previous_;
    bool hadPrevious_ = false;
};

// Local time on a day of March 2026.
inline uint32_t Local(int day, int hour, int minute = 0, int second = 0) {
    return static_cast<uint32_t>(LocalSeconds(DateTime{2026, 3, day, hour, minute, second, 0}));
}
