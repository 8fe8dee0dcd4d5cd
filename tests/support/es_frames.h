// Encoded-frame bytes for tests: NAL units behind Annex-B start codes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

using Bytes = std::vector<uint8_t>;

// A NAL unit: a four-byte start code (three with longStartCode false), the
// header bytes, then `filler` bytes of `fill`.
// Sized once and filled in place: g++ 12 at -O3 warns falsely about the
// growth path of vector::insert.
inline Bytes Nal(std::initializer_list<uint8_t> header, size_t filler, uint8_t fill = 0x5A,
                 bool longStartCode = true) {
    const size_t codeSize = longStartCode ? 4 : 3;
    Bytes nal(codeSize + header.size() + filler, fill);
    std::fill_n(nal.begin(), codeSize - 1, 0);
    nal[codeSize - 1] = 1;
    std::copy(header.begin(), header.end(), nal.begin() + codeSize);
    return nal;
}

inline Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes &part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}
