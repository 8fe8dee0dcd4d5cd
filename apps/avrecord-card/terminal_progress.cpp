#include "terminal_progress.h"

#include <unistd.h>

#include <cstdio>

namespace {

constexpr double kQuietSeconds = 2.0;    // nothing shown before this
constexpr double kRedrawSeconds = 0.25;  // at most four lines a second
constexpr double kMiB = 1024.0 * 1024.0;

double Seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

TerminalProgress::TerminalProgress(const char *what)
    : what_(what), enabled_(isatty(STDERR_FILENO) == 1), start_(Clock::now()), lastDrawn_(start_) {}

TerminalProgress::~TerminalProgress() { Finish(); }

void TerminalProgress::Finish() {
    if (shown_) fprintf(stderr, "\r\033[K");
    shown_ = false;
    enabled_ = false;
}

std::string TerminalProgress::Line(const char *what, uint64_t frames, uint64_t framesTotal, uint64_t bytes,
                                   double share, double elapsed) {
    char text[160];
    int n = snprintf(text, sizeof text, "%s: %llu", what, static_cast<unsigned long long>(frames));
    if (framesTotal != 0)
        n += snprintf(text + n, sizeof text - n, "/%llu", static_cast<unsigned long long>(framesTotal));
    n += snprintf(text + n, sizeof text - n, " frames, %.1f MiB", static_cast<double>(bytes) / kMiB);
    if (share > 0 && share < 1) {
        unsigned left = static_cast<unsigned>(elapsed * (1 - share) / share + 0.5);
        snprintf(text + n, sizeof text - n, ", %u:%02u left", left / 60, left % 60);
    }
    return text;
}

void TerminalProgress::Update(uint64_t frames, uint64_t framesTotal, uint64_t bytes, double share) {
    if (!enabled_) return;
    Clock::time_point now = Clock::now();
    if (Seconds(now - start_) < kQuietSeconds || Seconds(now - lastDrawn_) < kRedrawSeconds) return;
    lastDrawn_ = now;
    shown_ = true;
    // Clear to the end of the line: the new one may be shorter.
    fprintf(stderr, "\r%s\033[K",
            Line(what_.c_str(), frames, framesTotal, bytes, share, Seconds(now - start_)).c_str());
}
