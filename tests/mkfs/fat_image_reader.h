// Reads a formatted card image back the way a FAT driver would, for the
// formatter tests: boot sector, both FATs, the root directory by its chain,
// and the external checkers (fsck.fat, mtools) when installed.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "mkfs/fat32_records.h"
#include "support/card_fixture.h"

struct DirFile {
    std::string longName;
    std::string shortName;
    uint32_t firstCluster;
    uint32_t size;
};

class FatImage {
public:
    // Decodes the boot sector; false (with a test failure) when it is not one.
    bool Open(const std::string &path) {
        path_ = path;
        std::string sector = ReadFileAt(path, 0, 512);
        const char *why = nullptr;
        if (sector.size() != 512 ||
            Fat32DecodeBootSector(reinterpret_cast<const uint8_t *>(sector.data()), &layout_, &why) != 0) {
            ADD_FAILURE() << path << ": " << (why ? why : "short image");
            return false;
        }
        return true;
    }
    const Fat32Layout &layout() const { return layout_; }
    std::string Sector(uint32_t n) const {
        return ReadFileAt(path_, static_cast<uint64_t>(n) * layout_.bytesPerSector, layout_.bytesPerSector);
    }
    std::vector<uint32_t> Fat(uint32_t copy) const {
        uint64_t start = (kFat32ReservedSectors + static_cast<uint64_t>(copy) * layout_.fatSectors) *
                         layout_.bytesPerSector;
        std::string bytes =
            ReadFileAt(path_, start, static_cast<size_t>(layout_.fatSectors) * layout_.bytesPerSector);
        std::vector<uint32_t> entries(bytes.size() / 4);
        memcpy(entries.data(), bytes.data(), entries.size() * 4);
        return entries;
    }
    // Clusters of the chain from first, in order; stops at an end mark, a
    // free entry or a loop.
    static std::vector<uint32_t> Chain(const std::vector<uint32_t> &fat, uint32_t first) {
        std::vector<uint32_t> chain;
        for (uint32_t cluster = first; cluster >= 2 && cluster < fat.size() && chain.size() <= fat.size();
             cluster = fat[cluster] & 0x0FFFFFFF) {
            chain.push_back(cluster);
            if ((fat[cluster] & 0x0FFFFFFF) >= 0x0FFFFFF8) break;
        }
        return chain;
    }
    std::string ClusterBytes(uint32_t cluster) const {
        return ReadFileAt(path_, Fat32ClusterOffset(layout_, cluster), layout_.ClusterBytes());
    }
    // Long-name / 8.3 pairs of the root directory up to the first free slot;
    // the raw directory bytes through rawOut.
    std::vector<DirFile> RootDirectory(std::string *rawOut = nullptr) const {
        std::string raw;
        for (uint32_t cluster : Chain(Fat(0), kFat32RootCluster)) raw += ClusterBytes(cluster);
        std::vector<DirFile> files;
        for (size_t at = 0; at + kDirBytesPerFile <= raw.size() && raw[at] != 0; at += kDirBytesPerFile) {
            Fat32LongNameEntry longEntry;
            Fat32ShortEntry shortEntry;
            memcpy(&longEntry, raw.data() + at, sizeof longEntry);
            memcpy(&shortEntry, raw.data() + at + sizeof longEntry, sizeof shortEntry);
            EXPECT_EQ(longEntry.checksum, Fat32ShortNameChecksum(shortEntry.name)) << "entry at " << at;
            uint16_t chars[13];
            memcpy(chars, longEntry.name1, sizeof longEntry.name1);
            memcpy(chars + 5, longEntry.name2, sizeof longEntry.name2);
            memcpy(chars + 11, longEntry.name3, sizeof longEntry.name3);
            std::string longName;
            for (uint16_t c : chars) {
                if (c == 0) break;
                longName += static_cast<char>(c);
            }
            files.push_back(
                {longName, std::string(shortEntry.name, 11),
                 static_cast<uint32_t>(shortEntry.firstClusterHigh) << 16 | shortEntry.firstClusterLow,
                 shortEntry.fileSize});
        }
        if (rawOut != nullptr) *rawOut = raw;
        return files;
    }

private:
    std::string path_;
    Fat32Layout layout_{};
};

// Output and exit status of a shell command.
inline std::string RunCommand(const std::string &command, int *status) {
    std::string output;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        *status = -1;
        return output;
    }
    char buf[4096];
    size_t got;
    while ((got = fread(buf, 1, sizeof buf, pipe)) > 0) output.append(buf, got);
    int raw = pclose(pipe);
    *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return output;
}

inline bool HaveTool(const char *name) {
    int status = 0;
    RunCommand(std::string("command -v ") + name + " >/dev/null", &status);
    return status == 0;
}

// What fsck.fat -n finds wrong beyond the two things the card carries on
// purpose (see scripts/fsck-card).
inline std::string FsckProblems(const std::string &image) {
    int status = 0;
    std::string output =
        RunCommand(std::string(AVRECORD_SOURCE_DIR) + "/scripts/fsck-card '" + image + "'", &status);
    return status == 0 ? "" : output + "(exit " + std::to_string(status) + ")";
}
