// Base64 (RFC 4648) for the parameter sets in SDP and HTTP Basic credentials.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

std::string Base64Encode(const uint8_t *data, size_t size);

// False on a character outside the alphabet or a broken length.
bool Base64Decode(std::string_view text, std::string *out);
