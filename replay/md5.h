// MD5 (RFC 1321), the hash HTTP and RTSP Digest authentication is defined on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

inline constexpr size_t kMd5Size = 16;

// The digest of the bytes.
void Md5(const void *data, size_t size, uint8_t digest[kMd5Size]);

// The digest as 32 lower-case hexadecimal digits.
std::string Md5Hex(std::string_view text);
