// The counterfeit-card check the formatter makes before it lays anything
// out. Cards sold with a capacity they do not have answer for every
// sector, but what lies past their real flash either wraps onto it or is
// dropped: a marker written high up lands on (or overwrites) one written
// low down. Distinct markers at a few dozen points across the claimed
// capacity, the last sectors included, are written, flushed, read back
// from the card (not the cache) and the sectors' old contents put back.
#pragma once

#include <cstdint>

inline constexpr uint32_t kCapacityProbePoints = 64;  // spread evenly, plus the last sector

// Probes a device of `bytes` claimed bytes opened read-write on fd. 0 when
// every marker came back; 1 when not, with *realBytes the capacity the card
// really holds (the smallest wrap distance or the lowest lost marker); -1
// on an I/O failure (errno set). The sectors probed hold what they held
// before in every case the card allows.
int MkfsProbeCapacity(int fd, uint64_t bytes, uint32_t sectorSize, uint64_t *realBytes);
