// Fuzz entry: the settings file parser over arbitrary file content.
#pragma once

#include <cstdint>
#include <string>

#include "common/inifile.h"
#include "fuzz/fuzz_support.h"

namespace fuzz {

inline int FuzzIniFile(const uint8_t *data, size_t size) {
    // A file of MAX_FILE_SIZE bytes or more stops the process by design.
    if (size >= static_cast<size_t>(MAX_FILE_SIZE)) return 0;
    const std::string path = std::string(ScratchDir()) + "/CustomTools.cfg";
    if (!WriteWholeFile(path, data, size)) return 0;
    char value[8];
    read_profile_string("AVRecordCustom", "StreamType", value, sizeof value, "0", path.c_str());
    read_profile_int("AVRecordCustom", "Duration", 0, path.c_str());
    read_profile_int("A", "D", 0, path.c_str());
    write_profile_string("AVRecordCustom", "Duration", "30", path.c_str());
    write_profile_string("New", "Key", "value", path.c_str());
    read_profile_string("New", "Key", value, sizeof value, nullptr, path.c_str());
    return 0;
}

}  // namespace fuzz
