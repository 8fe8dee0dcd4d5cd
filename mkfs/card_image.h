// Reaching the files of a card this formatter just wrote, without a mount:
// their clusters follow from the layout. Used to leave a fresh index header
// in index000.bin so the card is ready to record.
#pragma once

#include <cstdint>

#include "mkfs/fat32_layout.h"

// Position of a file of the card file set in the directory; -1 when the
// layout has no file of that name.
int CardFilePosition(const Fat32Layout &layout, const char *longName);

// Writes length bytes at offset inside the named file on the device and
// flushes them. Returns 0, or -1 with a message on standard error (also
// when the bytes would not fit inside the file).
int CardImageWriteFile(const char *device, const Fat32Layout &layout, const char *longName, uint32_t offset,
                       const void *data, uint32_t length);
