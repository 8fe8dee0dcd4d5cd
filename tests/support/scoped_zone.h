// A fixed time zone for a test's scope.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>

// True when the system has the time-zone data of the zone.
inline bool HaveZoneData(const char *zone) {
    return access((std::string("/usr/share/zoneinfo/") + zone).c_str(), R_OK) == 0;
}

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
