// The commands of avcam-sim besides "run": each takes its arguments after
// the command name and returns the exit code (0 ok, 1 failed, 2 bad usage),
// printing one clear line on standard error when it fails.
#pragma once

#include <string>
#include <vector>

using SimArgs = std::vector<std::string>;

int SimSet(const SimArgs &args);
int SimAlarm(const SimArgs &args);
int SimWatchdog(const SimArgs &args);
int SimInject(const SimArgs &args);
int SimStatusCommand(const SimArgs &args);
// A test reader built on the ring reader (consumer type 6).
int SimRead(const SimArgs &args);

// Prints "avcam-sim: <message>" on standard error and returns code.
int SimFail(int code, const std::string &message);
