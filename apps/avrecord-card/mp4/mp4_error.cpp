#include "mp4_error.h"

extern "C" {
#include <libavutil/error.h>
}

std::string Mp4ErrorText(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = "";
    av_strerror(error, text, sizeof text);
    return text;
}
