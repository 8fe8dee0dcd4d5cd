#include "lib/sim_io.h"

#include <charconv>
#include <cstdio>

bool ReadFileBytes(const std::string &path, std::vector<uint8_t> *data) {
    FILE *file = fopen(path.c_str(), "rb");
    if (file == nullptr) return false;
    data->clear();
    uint8_t chunk[65536];
    size_t got = 0;
    while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) data->insert(data->end(), chunk, chunk + got);
    bool ok = ferror(file) == 0;
    fclose(file);
    return ok;
}

bool ParseNumber(const std::string &text, long min, long max, long *value) {
    long parsed = 0;
    const char *end = text.data() + text.size();
    auto result = std::from_chars(text.data(), end, parsed);
    if (text.empty() || result.ec != std::errc() || result.ptr != end || parsed < min || parsed > max)
        return false;
    *value = parsed;
    return true;
}
