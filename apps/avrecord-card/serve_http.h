// The web server of "avrecord-card serve": the page (built into the
// program), the JSON API, playback and clips, for one card.
#pragma once

#include "serve_admission.h"

// Serves until SIGINT or SIGTERM. The card must be readable before the
// first request. 0, or 1 with a message on standard error.
int ServeCard(const ServeOptions &options);
