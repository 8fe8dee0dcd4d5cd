// A range of the card as one download: an AVI file made with the AVI
// export's header, or the program stream as the recorder wrote it. The bytes
// go out as they are read; nothing is kept but the AVI's chunk list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "replay/replay_source.h"

enum class ReplayFormat { kAvi, kPs };

// Takes the next bytes of the download; false when the receiver is gone.
using ReplaySink = std::function<bool(const uint8_t *data, size_t size)>;

inline constexpr int kExportDone = 0;
inline constexpr int kExportEmpty = 1;    // no frame in the range: nothing was sent
inline constexpr int kExportFailed = -1;  // the card or the receiver failed on the way

// Sends [startUs, endUs] in the format: `begin` is called once before the
// first byte (it sends the reply's head and may refuse with false), then
// the bytes go to sink. Frames the recorder has not written yet are not
// waited for beyond a moment.
int ReplayExport(const ReplayCard &card, uint64_t startUs, uint64_t endUs, ReplayFormat format,
                 const std::function<bool()> &begin, const ReplaySink &sink);
