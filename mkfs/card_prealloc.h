// The card file set as sparse files in a plain directory, for machines that
// record without a FAT card: same names, sizes and order as a formatted
// card. The caller then writes the index header into index000.bin.
#pragma once

#include <cstdint>

// Creates the files missing in dir (which must exist) and keeps those
// already there at the right size; a file of another size is refused
// before anything is created. Returns 0, or -1 with a message on standard
// error.
int CardPreallocate(const char *dir, uint32_t mediaFiles, uint32_t pictureFiles);
