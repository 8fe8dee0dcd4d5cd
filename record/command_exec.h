// Shell commands of the daemon ("sync" on the way out) run through
// "/bin/sh -c".
#pragma once

// Runs cmd through the shell and waits for it: 0 when a child was started
// and waited for (its exit status is not looked at), 1 when none could be
// created.
int Command_Exec(const char *cmd);

// 0 on success, -1 for a null command or a child that could not be started
// (logged with the command and the result).
int Command_System(const char *cmd);
