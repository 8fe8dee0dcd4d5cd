// The routes of "avrecord-card serve": the page's files, the JSON API, the
// video of a moment and the clips. Every route reads its query once,
// through ParseQuery, and refuses one that is not sound.
#pragma once

#include <httplib.h>

#include <string>

#include "serve_admission.h"
#include "serve_api.h"
#include "serve_clips.h"

// Answers with the reply's status and JSON body.
void Reply(httplib::Response &res, const ApiReply &reply);

void AddRoutes(httplib::Server &server, const std::string &cardDir, ClipJobs &jobs, StreamSlots &slots);
