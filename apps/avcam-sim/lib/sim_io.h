// Small helpers of the simulator's commands.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Whole file into bytes; false when it cannot be read.
bool ReadFileBytes(const std::string &path, std::vector<uint8_t> *data);

// Strict decimal number in [min, max]; false for anything else.
bool ParseNumber(const std::string &text, long min, long max, long *value);
