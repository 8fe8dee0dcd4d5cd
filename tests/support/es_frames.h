// Encoded-frame bytes for tests: NAL units behind Annex-B start codes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

using Bytes = std::vector<uint8_t>;

// A NAL unit: a four-byte start code (three with longStartCode false), the
// header bytes, then `filler` bytes of `fill`.
inline Bytes Nal(std::initializer_list<uint8_t> header, size_t filler, uint8_t fill = 0x5A,
                 bool longStartCode = true) {
    Bytes nal = longStartCode ? Bytes{0, 0, 0, 1} : Bytes{0, 0, 1};
    nal.insert(nal.end(), header.begin(), header.end());
    nal.insert(nal.end(), filler, fill);
    return nal;
}

inline Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes &part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}
