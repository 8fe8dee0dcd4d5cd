// A fixed time zone for a test's scope.
#pragma once

#include <cstdlib>
#include <ctime>
#include <string>

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
