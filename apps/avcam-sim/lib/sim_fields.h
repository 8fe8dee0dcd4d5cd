// The SysInfo settings the simulator changes by name ("avcam-sim set",
// profile files and the defaults of "run").
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// One change of the record: bytes at an offset, or (copyFrom >= 0) the byte
// at copyFrom as it is when the change is applied.
struct FieldChange {
    uint32_t offset;             // offset
    std::vector<uint8_t> bytes;  // bytes
    int32_t copyFrom;            // copyFrom, -1 for none
};

// Leading word of a setting list that lifts the value checks: any value the
// setting's bytes can hold is written, for fault injection ("stream-type 7",
// "day-mode 3 9", "segment 1 0 99:00-99:00 0"). Stream, day and segment
// numbers, which pick the bytes, stay checked.
inline constexpr const char *kUncheckedFlag = "--unchecked";

// Parses "[--unchecked] NAME VALUE... [NAME VALUE...]". false with one clear
// reason for an unknown name, a missing or bad value; nothing is returned then.
bool ParseSettings(const std::vector<std::string> &words, std::vector<FieldChange> *changes,
                   std::string *error);

// A profile file: one setting per line as for ParseSettings, '#' comments.
bool LoadProfile(const std::string &path, std::vector<FieldChange> *changes, std::string *error);

// Applies changes to a SysInfo image in order.
void ApplyChanges(uint8_t *sysInfo, const std::vector<FieldChange> &changes);

// "NAME ARGS  description" lines for the usage text.
std::string SettingsUsage();
