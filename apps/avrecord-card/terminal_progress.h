// One progress line on standard error for exports that take a while: frames
// and bytes done and the time left, redrawn a few times a second. Only when
// standard error is a terminal, and only once the work has run for more
// than a moment, so short exports and scripts see nothing of it.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

class TerminalProgress {
public:
    explicit TerminalProgress(const char *what);
    ~TerminalProgress();
    TerminalProgress(const TerminalProgress &) = delete;
    TerminalProgress &operator=(const TerminalProgress &) = delete;

    // frames of framesTotal, bytes written; share (0..1) of the work done
    // gives the time left. Totals of 0 are left out.
    void Update(uint64_t frames, uint64_t framesTotal, uint64_t bytes, double share);
    // Clears the line, so what is printed next takes its place (also done
    // on destruction).
    void Finish();

    // The line as shown after `elapsed` seconds.
    static std::string Line(const char *what, uint64_t frames, uint64_t framesTotal, uint64_t bytes,
                            double share, double elapsed);

private:
    using Clock = std::chrono::steady_clock;
    std::string what_;
    bool enabled_;
    bool shown_ = false;
    Clock::time_point start_;
    Clock::time_point lastDrawn_;
};
