// Card-level record configuration: writing a fresh index header, reading
// the card's space figures, formatting the card.
#pragma once

#include <cstdint>

// The configuration handed to AV_RecordFileConfigSet is read as 32-bit
// words: word 0 is kept as m_u32RecordConfigValue, word 4 is StoreFileNum
// (the media file count of the formatter's capacity record).
inline constexpr uint32_t kRecordConfigValueWord = 0;
inline constexpr uint32_t kRecordConfigStoreFileNumWord = 4;

// Writes a fresh index header for StoreFileNum media files at offset 0 of
// path (opened read-write); 0, or -1 when opening or writing failed.
int AV_RecordFileConfigSet(const char *path, const void *config);
// Reads and checks the header of path: the space size as stored and the free
// size in MiB, counted in unused media files of 256 MiB. 0 or -1.
int AV_RecordConfigInfoGet(const char *path, uint32_t *spaceSize, uint32_t *freeSize);
// Formats the card partition, handing both parameters to the formatter
// unchanged; always 0.
int AV_RecordSDCardFormat(void *capacity, int percent);

// The formatter AV_RecordSDCardFormat calls (device path, capacity record,
// percentage); tests install their own (nullptr restores the default).
using SDCardFormatFunc = int (*)(const char *device, void *capacity, int percent);
void SetSDCardFormatFunc(SDCardFormatFunc format);
