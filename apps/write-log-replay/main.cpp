// write-log-replay: rebuilds a device from the log the kernel's log-writes
// target kept of it, state by state, and runs a check on every state; or
// lists the log's entries.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "lib/write_log.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailedStates = 1;
constexpr int kExitUsage = 2;
constexpr int kExitError = 3;
constexpr int kExecFailed = 127;

int Usage(FILE *out, int code) {
    fprintf(out,
            "usage: write-log-replay LOG IMAGE [--every N] [--mirror DIR --extents FILE] [--run COMMAND]\n"
            "       write-log-replay --list LOG\n\n"
            "Replays LOG onto IMAGE (the device as it was when logging began; changed in\n"
            "place). A state is the device after a content-changing entry: every Nth\n"
            "one (default 1) and the last are checked by running COMMAND through sh,\n"
            "with WRITE_LOG_STATE, WRITE_LOG_ENTRY and WRITE_LOG_WRITES set; a state\n"
            "fails when COMMAND exits non-zero. --mirror keeps the files named in\n"
            "--extents (lines \"NAME OFFSET SIZE\", byte offsets in IMAGE) as plain files\n"
            "in DIR, updated with every write.\n"
            "Exit: 0 all states passed, 1 some failed, 2 usage, 3 log or image unreadable.\n");
    return code;
}

int ListLog(const std::string &path) {
    WriteLogReader log;
    std::string error;
    if (log.Open(path, &error) < 0) {
        fprintf(stderr, "write-log-replay: %s\n", error.c_str());
        return kExitError;
    }
    printf("entries %llu sector_size %u\n", static_cast<unsigned long long>(log.Super().entryCount),
           log.Super().sectorSize);
    WriteLogRecord record;
    int got;
    while ((got = log.Next(&record, &error)) == 1) {
        printf("%llu %llu+%llu %s\n", static_cast<unsigned long long>(record.number),
               static_cast<unsigned long long>(record.entry.sector),
               static_cast<unsigned long long>(record.entry.sectorCount), WriteLogDescribe(record).c_str());
    }
    if (got < 0) {
        fprintf(stderr, "write-log-replay: %s\n", error.c_str());
        return kExitError;
    }
    return kExitOk;
}

// Runs the check command for a state; its exit status (or 128 + signal).
int RunCheck(const std::string &command, const WriteLogState &state) {
    fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) return kExecFailed;
    if (pid == 0) {
        setenv("WRITE_LOG_STATE", std::to_string(state.number).c_str(), 1);
        setenv("WRITE_LOG_ENTRY", std::to_string(state.entry).c_str(), 1);
        setenv("WRITE_LOG_WRITES", std::to_string(state.writes).c_str(), 1);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
        _exit(kExecFailed);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) < 0) return kExecFailed;
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return WEXITSTATUS(status);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 3 && strcmp(argv[1], "--list") == 0) return ListLog(argv[2]);
    if (argc < 3 || argv[1][0] == '-' || argv[2][0] == '-') return Usage(stderr, kExitUsage);
    WriteLogReplayOptions options;
    options.logPath = argv[1];
    options.imagePath = argv[2];
    std::string command;
    for (int i = 3; i < argc; i += 2) {
        std::string name = argv[i];
        if (i + 1 >= argc) return Usage(stderr, kExitUsage);
        const char *value = argv[i + 1];
        if (name == "--every") {
            char *end = nullptr;
            options.every = strtoull(value, &end, 10);
            if (*end != '\0' || options.every == 0) return Usage(stderr, kExitUsage);
        } else if (name == "--mirror") {
            options.mirrorFolder = value;
        } else if (name == "--extents") {
            options.mirrorExtents = value;
        } else if (name == "--run") {
            command = value;
        } else {
            return Usage(stderr, kExitUsage);
        }
    }
    if (options.mirrorFolder.empty() != options.mirrorExtents.empty()) return Usage(stderr, kExitUsage);
    WriteLogReplayResult result;
    std::string error;
    auto check = [&](const WriteLogState &state) {
        if (command.empty()) return true;
        int code = RunCheck(command, state);
        if (code != 0) {
            printf("state %llu (entry %llu, write %llu): check exited %d\n",
                   static_cast<unsigned long long>(state.number),
                   static_cast<unsigned long long>(state.entry),
                   static_cast<unsigned long long>(state.writes), code);
        }
        return code == 0;
    };
    if (ReplayWriteLog(options, check, &result, &error) < 0) {
        fprintf(stderr, "write-log-replay: %s\n", error.c_str());
        return kExitError;
    }
    printf("%llu states checked (every %llu of %llu writes, %llu entries), %llu failed\n",
           static_cast<unsigned long long>(result.states), static_cast<unsigned long long>(options.every),
           static_cast<unsigned long long>(result.writes), static_cast<unsigned long long>(result.entries),
           static_cast<unsigned long long>(result.failedStates));
    return result.failedStates == 0 ? kExitOk : kExitFailedStates;
}
