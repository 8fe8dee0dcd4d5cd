// avcam-sim: the camera's encoder and configuration server, simulated over
// the System V objects of the current IPC namespace, so AVRecord runs on a PC.
#include <cstdio>
#include <cstring>
#include <string>

#include "lib/sim_commands.h"
#include "lib/sim_fields.h"
#include "lib/sim_run.h"

namespace {

int Usage(FILE *out, int code) {
    fprintf(out,
            "usage: avcam-sim COMMAND ...\n\n"
            "  run [--profile FILE] [--video0 FILE] [--video1 FILE] [--video2 FILE]\n"
            "      [--audio FILE --audio-codec g711a|g711u|aac] [--fps N] [--no-loop] [--speed X]\n"
            "      [--publish-log FILE]\n"
            "                         encoder, configuration server and shared blocks until SIGINT/SIGTERM;\n"
            "                         --publish-log: a line per video frame (unix us, stream, unit)\n"
            "  set [--unchecked] NAME VALUE...\n"
            "                         change SysInfo settings while everything runs (--unchecked\n"
            "                         writes out-of-range values, for fault injection):\n%s"
            "  alarm SOURCE on|off    write alarm source 0..15\n"
            "  watchdog [--json]      the 17 watchdog slots\n"
            "  inject FAULT N [--stream S]\n"
            "                         serial-gap N | pause SECONDS | corrupt-check N | burst N\n"
            "  status [--json]        serial, position and frames per ring, requests answered\n"
            "  read [--streams 0,1,2] [--seconds N] [--quiet-exit-ms MS] [--out DIR]\n"
            "       [--force-iframe S] [--force-after-ms MS]\n"
            "                         a ring consumer for tests: counts, checks serials, saves payloads\n",
            SettingsUsage().c_str());
    return code;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) return Usage(stderr, kSimExitUsage);
    std::string command = argv[1];
    SimArgs args(argv + 2, argv + argc);
    if (command == "--help" || command == "help") return Usage(stdout, kSimExitOk);
    if (command == "run") {
        SimRunOptions options;
        std::string error;
        if (int code = ParseRunOptions(args, &options, &error); code != kSimExitOk)
            return SimFail(code, error);
        return SimRun(options);
    }
    if (command == "set") return SimSet(args);
    if (command == "alarm") return SimAlarm(args);
    if (command == "watchdog") return SimWatchdog(args);
    if (command == "inject") return SimInject(args);
    if (command == "status") return SimStatusCommand(args);
    if (command == "read") return SimRead(args);
    fprintf(stderr, "avcam-sim: unknown command '%s'\n", command.c_str());
    return kSimExitUsage;
}
