// "avcam-sim run": configuration server, encoder and shared-memory blocks
// until SIGINT or SIGTERM.
#pragma once

#include <string>
#include <vector>

#include "lib/sim_encoder.h"
#include "lib/sim_fields.h"

inline constexpr int kSimExitOk = 0;
inline constexpr int kSimExitFailed = 1;
inline constexpr int kSimExitUsage = 2;

struct SimRunOptions {
    SimEncoderConfig encoder;           // inputs and pacing
    std::vector<FieldChange> settings;  // defaults, then the profile
};

// Parses the options and loads every input. On failure returns the exit
// code (2 bad usage, 1 unusable input) with one line in *error.
int ParseRunOptions(const std::vector<std::string> &args, SimRunOptions *options, std::string *error);

// The SysInfo defaults for the given inputs.
std::vector<FieldChange> DefaultSettings(const SimEncoderConfig &encoder);

// Runs until a stop signal; removes everything it created. Exit code.
int SimRun(SimRunOptions &options);
