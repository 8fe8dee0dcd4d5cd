// Card-level record configuration: writing a fresh index header, reading
// the card's space figures, formatting the card.
#pragma once

#include <cstdint>

#include "mkfs/card_file_set.h"

// Writes a fresh index header at offset 0 of path (opened read-write) from
// the formatter's capacity record: its first 32-bit word is kept as
// m_u32RecordConfigValue, its fifth (the media file count) is StoreFileNum.
// 0, or -1 when opening or writing failed.
int AV_RecordFileConfigSet(const char *path, const MkfsCapacityInfo *config);
// Reads and checks the header of path: the space size as stored and the free
// size in MiB, counted in unused media files of 256 MiB. 0 or -1.
int AV_RecordConfigInfoGet(const char *path, uint32_t *spaceSize, uint32_t *freeSize);
// Formats the card partition, handing both parameters to the formatter
// unchanged; always 0. A card the formatter refused (a busy device, one
// still mounted) is logged as not formatted.
int AV_RecordSDCardFormat(MkfsCapacityInfo *capacity, int percent);

// The formatter AV_RecordSDCardFormat calls, mkfs_vfat; tests install their
// own (nullptr restores mkfs_vfat).
using SDCardFormatFunc = int (*)(const char *device, MkfsCapacityInfo *capacity, int percent);
void SetSDCardFormatFunc(SDCardFormatFunc format);
