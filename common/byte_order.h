// Every on-card and shared-memory record of this system is little-endian and
// read by plain struct copies, so the host must be little-endian too.
#pragma once

#include <bit>

static_assert(std::endian::native == std::endian::little,
              "AVRecord records are little-endian; the host must be too");
