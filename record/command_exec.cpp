#include "record/command_exec.h"

#include <sys/wait.h>
#include <unistd.h>

#include "common/log.h"

namespace {
constexpr char kShell[] = "/bin/sh";
}

int Command_Exec(const char *cmd) {
    pid_t child = vfork();
    if (child == -1) return 1;
    if (child == 0) {
        execl(kShell, "sh", "-c", cmd, static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return 0;
}

int Command_System(const char *cmd) {
    if (cmd == nullptr) return -1;
    int ret = Command_Exec(cmd);
    if (ret != 0) {
        LogTrace("%s %d:execute cmd [%s] failed! ret = %d\n", __func__, __LINE__, cmd, ret);
        return -1;
    }
    return 0;
}
