#include "common/shell_command.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace {
constexpr char kShell[] = "/bin/sh";
constexpr int kExecFailed = 127;
}  // namespace

int ShellCommandRun(const char *command, int *status) {
    pid_t child = vfork();
    if (child < 0) return -1;
    if (child == 0) {
        execl(kShell, "sh", "-c", command, static_cast<char *>(nullptr));
        _exit(kExecFailed);
    }
    int waitStatus = 0;
    while (waitpid(child, &waitStatus, 0) < 0 && errno == EINTR) {
    }
    if (status != nullptr) *status = waitStatus;
    return 0;
}
