// FFmpeg's error codes as text, for the MP4 writer and the audio converter.
#pragma once

#include <string>

// FFmpeg's message for an error code.
std::string Mp4ErrorText(int error);
