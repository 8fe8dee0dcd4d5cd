#include "record/command_exec.h"

#include "common/log.h"
#include "common/shell_command.h"

int Command_Exec(const char *cmd) { return ShellCommandRun(cmd, nullptr) < 0 ? 1 : 0; }

int Command_System(const char *cmd) {
    if (cmd == nullptr) return -1;
    int ret = Command_Exec(cmd);
    if (ret != 0) {
        LogTrace("%s %d:execute cmd [%s] failed! ret = %d\n", __func__, __LINE__, cmd, ret);
        return -1;
    }
    return 0;
}
