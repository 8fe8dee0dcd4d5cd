// Cards read straight from an image file or the card's raw device (for
// example /dev/sdb1), without mounting: a read-only implementation of the
// file I/O layer. While an image is attached, "<image>/<name>" opens the
// file of that name in the image's root directory, and the index, search,
// playback and export code run on it unchanged; every other path still
// goes to the POSIX calls (export outputs, for one). Nothing is ever
// written to the image unless it is attached writable: it is opened
// O_RDONLY, and opening one of its files for writing fails with EROFS.
#pragma once

#include <string>

// Opens the image, checks that it is a card of this recorder (a FAT32
// volume whose root directory holds index000.bin) and that each of its
// files except the picture files is one contiguous run of clusters, then
// installs the layer. *cardDir gets the directory to hand to the card code
// ("<image>/"). 0, or -1 with the reason in *why; nothing is installed then.
// With writable, the card's files may be opened for writing and their bytes
// overwritten in place (through the image opened read-write): a write never
// reaches past a file's end, so no cluster, FAT entry or directory entry
// changes.
int CardImageAttach(const std::string &image, std::string *cardDir, std::string *why, bool writable = false);

// Restores the POSIX layer and forgets the image (descriptors still open on
// its files stay readable until closed).
void CardImageDetach();
