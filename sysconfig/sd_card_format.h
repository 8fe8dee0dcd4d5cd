// Card re-format on request of another process: stop the recorder, unmount
// the card, format it, mount it again. Every step is a shell command; the
// marker file exists while the sequence runs.
#pragma once

#include <cstdint>

#include "sysconfig/camera_property.h"

// Runs one shell command line; its result is not looked at.
using ShellRunner = int (*)(const char *command);
// Waits the given number of seconds between steps.
using FormatSleeper = void (*)(unsigned seconds);

// "/bin/sh -c command", waited for.
int RunShellCommand(const char *command);

// Replace the runner and the waits (tests); null restores the default.
void SetShellRunner(ShellRunner runner);
void SetFormatSleeper(FormatSleeper sleeper);

// The re-format sequence with the watchdog restart, on the caller's thread.
void *SDCard_Format(void *arg);

// 1 while a re-format sequence runs.
uint32_t SDCardFormatting();

// Storage type 1 with option 0 starts SDCard_Format on a detached thread;
// anything else does nothing. Returns 0 at once (-1 for a null option).
int Common_StorageOption(const StorageOption *option);

// The same sequence run to its end on the caller's thread, leaving the
// watchdog alone.
int Common_StorageOption2(const StorageOption *option);
