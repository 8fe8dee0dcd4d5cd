#include "serve_media.h"

int MakeClip(const std::string &, uint32_t, uint32_t, const std::string &,
             const std::function<bool(const ClipProgress &)> &, std::string *reason) {
    *reason = "MP4 is not in this build yet";
    return -1;
}

int StreamFromMoment(const std::string &, uint32_t, const std::function<bool(const uint8_t *, size_t)> &,
                     std::string *reason) {
    *reason = "MP4 is not in this build yet";
    return -1;
}
