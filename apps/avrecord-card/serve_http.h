// The web server of "avrecord-card serve": the page (built into the
// program), the JSON API, playback and clips, for one card.
#pragma once

#include <string>

struct ServeOptions {
    std::string cardDir;  // ending with '/'
    std::string host;     // address to bind
    int port;             // 0: any free port
};

// Serves until SIGINT or SIGTERM. The card must be readable before the
// first request. 0, or 1 with a message on standard error.
int ServeCard(const ServeOptions &options);

// Splits "HOST:PORT" ("[::1]:8080" for IPv6). False for anything else.
bool ParseListenAddress(const std::string &text, std::string *host, int *port);

// True for 127.0.0.0/8, ::1 and "localhost".
bool IsLoopbackHost(const std::string &host);
