// Runs one shell command line through "/bin/sh -c" in a vforked child and
// waits for it. The daemon's "sync" and the card re-format sequence both go
// through here.
#pragma once

// Returns -1 when no child could be created; otherwise 0, with the child's
// wait status in *status when status is not null.
int ShellCommandRun(const char *command, int *status);
