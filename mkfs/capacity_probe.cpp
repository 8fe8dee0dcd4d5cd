#include "mkfs/capacity_probe.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "common/file_io.h"

namespace {

constexpr char kMarkerMagic[] = "AVRECORD CAPACITY MARKER";

// The head of a marker sector; the rest of the sector is zero.
struct CapacityMarker {
    char magic[24];   // kMarkerMagic without its terminator
    uint64_t nonce;   // this probe's
    uint32_t index;   // the point
    uint32_t zero;    // 0
    uint64_t offset;  // the point's byte offset
};
static_assert(sizeof(CapacityMarker) == 48);
static_assert(sizeof kMarkerMagic - 1 == sizeof CapacityMarker::magic);

struct ProbePoint {
    uint64_t offset;
    std::vector<uint8_t> original;
};

// Sector-aligned points spread over the claimed size, the last sector last.
std::vector<ProbePoint> ChoosePoints(uint64_t bytes, uint32_t sectorSize) {
    std::vector<ProbePoint> points;
    uint64_t sectors = bytes / sectorSize;
    for (uint32_t k = 0; k < kCapacityProbePoints; ++k)
        points.push_back({sectors * k / kCapacityProbePoints * sectorSize, {}});
    points.push_back({(sectors - 1) * sectorSize, {}});
    return points;
}

int Transfer(int fd, uint64_t offset, uint8_t *data, size_t length, bool write) {
    const FileIoOps &io = FileIo();
    if (io.seek(fd, static_cast<int64_t>(offset), SEEK_SET) < 0) return -1;
    ssize_t moved = write ? io.write(fd, data, length) : io.read(fd, data, length);
    if (moved == static_cast<ssize_t>(length)) return 0;
    if (moved >= 0) errno = EIO;
    return -1;
}

void MakeMarker(uint8_t *sector, size_t size, uint64_t nonce, uint32_t index, uint64_t offset) {
    CapacityMarker marker{{}, nonce, index, 0, offset};
    memcpy(marker.magic, kMarkerMagic, sizeof marker.magic);
    memset(sector, 0, size);
    memcpy(sector, &marker, sizeof marker);
}

// The marker's point index, or -1 when the sector holds no marker of this
// probe.
int64_t MarkerIndex(const uint8_t *sector, uint64_t nonce) {
    CapacityMarker marker;
    memcpy(&marker, sector, sizeof marker);
    if (memcmp(marker.magic, kMarkerMagic, sizeof marker.magic) != 0 || marker.nonce != nonce) return -1;
    return marker.index;
}

// Flushes to the card and drops the cached copies, so reads come from it.
int FlushAndForget(int fd) {
    if (FileIo().fsync(fd) != 0) return -1;
    FileIo().dropCache(fd);
    return 0;
}

// What the read-back says about the card's real size: a marker found at a
// lower point wraps the card at the distance; a lost one ends it there.
uint64_t RealBytes(const std::vector<ProbePoint> &points, const std::vector<int64_t> &found, uint64_t bytes) {
    uint64_t real = bytes;
    for (size_t k = 0; k < points.size(); ++k) {
        if (found[k] == static_cast<int64_t>(k)) continue;
        uint64_t here = points[k].offset;
        if (found[k] > static_cast<int64_t>(k))
            real = std::min(real, points[static_cast<size_t>(found[k])].offset - here);
        else
            real = std::min(real, here);
    }
    return real;
}

int RestoreOriginals(int fd, std::vector<ProbePoint> &points) {
    int result = 0;
    for (size_t k = points.size(); k-- > 0;) {
        if (Transfer(fd, points[k].offset, points[k].original.data(), points[k].original.size(), true) != 0)
            result = -1;
    }
    return FileIo().fsync(fd) != 0 ? -1 : result;
}

}  // namespace

int MkfsProbeCapacity(int fd, uint64_t bytes, uint32_t sectorSize, uint64_t *realBytes) {
    if (fd < 0 || sectorSize == 0 || bytes < sectorSize || realBytes == nullptr) {
        errno = EINVAL;
        return -1;
    }
    std::vector<ProbePoint> points = ChoosePoints(bytes, sectorSize);
    for (ProbePoint &p : points) {
        p.original.resize(sectorSize);
        if (Transfer(fd, p.offset, p.original.data(), sectorSize, false) != 0) return -1;
    }
    uint64_t nonce = static_cast<uint64_t>(time(nullptr)) << 32 ^ static_cast<uint64_t>(getpid());
    std::vector<uint8_t> sector(sectorSize);
    int result = 0;
    for (uint32_t k = 0; k < points.size() && result == 0; ++k) {
        MakeMarker(sector.data(), sectorSize, nonce, k, points[k].offset);
        result = Transfer(fd, points[k].offset, sector.data(), sectorSize, true);
    }
    if (result == 0) result = FlushAndForget(fd);
    std::vector<int64_t> found(points.size(), -1);
    for (size_t k = 0; k < points.size() && result == 0; ++k) {
        result = Transfer(fd, points[k].offset, sector.data(), sectorSize, false);
        found[k] = MarkerIndex(sector.data(), nonce);
    }
    int saved = errno;
    if (RestoreOriginals(fd, points) != 0 && result == 0) return -1;
    if (result != 0) {
        errno = saved;
        return -1;
    }
    *realBytes = RealBytes(points, found, bytes);
    return *realBytes == bytes ? 0 : 1;
}
