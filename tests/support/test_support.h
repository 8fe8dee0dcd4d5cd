// Helpers shared by the unit tests.
#pragma once

#include <string>
#include <vector>

// True when this test process has its own System V IPC namespace (entered
// by the test main); tests that create System V objects skip without it.
bool InPrivateIpcNamespace();

// Skips the current test when no private IPC namespace could be entered.
#define REQUIRE_PRIVATE_IPC()                                                     \
    do {                                                                          \
        if (!InPrivateIpcNamespace()) GTEST_SKIP() << "no private IPC namespace"; \
    } while (0)

// A fresh temporary directory, set as AVRECORD_ROOT while the object lives
// (the previous value is restored), removed with its contents afterwards.
class ScopedRoot {
public:
    ScopedRoot();
    ~ScopedRoot();
    ScopedRoot(const ScopedRoot &) = delete;
    ScopedRoot &operator=(const ScopedRoot &) = delete;

    const std::string &path() const { return path_; }
    // Absolute system path -> the file under this root.
    std::string Under(const std::string &systemPath) const;
    // Writes a file under the root, creating its directories.
    void WriteFile(const std::string &systemPath, const std::string &content) const;
    std::string ReadFile(const std::string &systemPath) const;

private:
    std::string path_;
    std::string previous_;
    bool hadPrevious_ = false;
};

// A temporary directory removed with its contents afterwards.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string File(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string ReadWholeFile(const std::string &path);
void WriteWholeFile(const std::string &path, const std::string &content);
void MakeDirectories(const std::string &path);
void RemoveTree(const std::string &path);

// How often `what` stands in `text` (overlapping places counted).
size_t CountOf(const std::string &text, const std::string &what);

// True when a line of a captured log names `function` where log lines put
// the calling function: right before the line number ("NAME 12", "NAME-12").
bool LogNamesFunction(const std::string &log, const std::string &function);
