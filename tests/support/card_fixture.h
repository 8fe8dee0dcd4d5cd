// A card file set in a plain directory for tests: sparse media, index and
// event files of their real sizes (nothing is allocated until written), and
// positioned access to their bytes.
#pragma once

#include <cstdint>
#include <string>

// Creates (or extends) path as a sparse file of `size` bytes.
void MakeSparseFile(const std::string &path, uint64_t size);
// Reads `length` bytes at offset (fewer at the end of the file).
std::string ReadFileAt(const std::string &path, uint64_t offset, size_t length);
void WriteFileAt(const std::string &path, uint64_t offset, const std::string &bytes);

// "hi000000.mp4" .. media files, "index000.bin" and "event000.bin" in dir
// (which ends with '/').
void MakeSparseCard(const std::string &dir, uint32_t mediaFiles);
std::string MediaFilePath(const std::string &dir, uint32_t fileNo);

// The bytes of a record, for comparing with what is on a file.
template <typename Record>
std::string RecordBytes(const Record &record) {
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
}
