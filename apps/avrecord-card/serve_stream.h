// What "avrecord-card serve" sends that is longer than a reply: the video
// of a moment, made while it is sent, and a finished clip's file. Each
// holds its stream slot until the answer is done or its viewer is cut off.
#pragma once

#include <httplib.h>

#include <cstdint>
#include <memory>
#include <string>

// Fragmented MP4 of [at, end] from the key frame reading starts on.
void StreamVideo(const std::string &cardDir, uint32_t at, uint32_t end, std::shared_ptr<void> slot,
                 httplib::Response &res);

// The clip file at path as a download named name. False when it is gone.
bool SendClipFile(const std::string &path, const std::string &name, std::shared_ptr<void> slot,
                  httplib::Response &res);
