// Debug output port: while the marker file "/tmp/Debug_Port_ON" exists the
// process listens on a TCP port and sends its standard output and standard
// error to the one client connected; anything the client sends is thrown
// away. Removing the marker closes the port and restores the outputs.
#pragma once

#include <cstdint>

// The switch check, run every 2 seconds by the watchdog thread (port 409):
// starts the port when the marker exists, stops it when it is gone.
int libDebugOutputStart(int port);

// Ignores SIGPIPE, sets the running flag and sets the port up; nothing
// happens while the port is already running. Returns 0.
int libDebugOutputStartPort(uint16_t port);

// Clears the running flag, joins both threads, restores the outputs and
// closes the sockets. Returns 0.
int libDebugOutputStop();

// Listening socket bound to the port, listen and receive threads started.
// Returns 0 or -1 (the socket stays open until the stop).
int SetupNetwork(uint16_t port);

// Thread bodies: accepting one client at a time, and reading (and dropping)
// what the client sends until it leaves.
void ListenSocketThread();
void SendRecvSocketThread();

// Duplicates fd onto standard output and standard error, keeping copies of
// both. Returns 0, -1 when a redirection is already in force, -4 when a
// duplication fails.
int libDebugOutputRedirect(int fd);

// Puts the saved outputs back. Returns 0, or -1 when nothing is redirected.
int libDebugOutputRestore();

// The local address the port binds to, in dotted form; nullptr (the
// default) binds to every address. Tests bind to the loopback address.
void libDebugOutputSetBindAddress(const char *address);
