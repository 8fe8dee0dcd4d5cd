#include "support/test_support.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace {

std::string MakeTempDirectory() {
    const char *base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/avrecord-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

}  // namespace

ScopedRoot::ScopedRoot() : path_(MakeTempDirectory()) {
    if (const char *old = std::getenv("AVRECORD_ROOT")) {
        previous_ = old;
        hadPrevious_ = true;
    }
    setenv("AVRECORD_ROOT", path_.c_str(), 1);
}

ScopedRoot::~ScopedRoot() {
    if (hadPrevious_) {
        setenv("AVRECORD_ROOT", previous_.c_str(), 1);
    } else {
        unsetenv("AVRECORD_ROOT");
    }
    RemoveTree(path_);
}

std::string ScopedRoot::Under(const std::string &systemPath) const { return path_ + systemPath; }

void ScopedRoot::WriteFile(const std::string &systemPath, const std::string &content) const {
    std::string full = Under(systemPath);
    MakeDirectories(std::filesystem::path(full).parent_path().string());
    WriteWholeFile(full, content);
}

std::string ScopedRoot::ReadFile(const std::string &systemPath) const {
    return ReadWholeFile(Under(systemPath));
}

TempDir::TempDir() : path_(MakeTempDirectory()) {}
TempDir::~TempDir() { RemoveTree(path_); }

std::string ReadWholeFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void WriteWholeFile(const std::string &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

void MakeDirectories(const std::string &path) {
    std::error_code ignored;
    std::filesystem::create_directories(path, ignored);
}

void RemoveTree(const std::string &path) {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

bool LogNamesFunction(const std::string &log, const std::string &function) {
    return std::regex_search(log, std::regex("(^|[^A-Za-z0-9_])" + function + "[ -][0-9]"));
}

size_t CountOf(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}
