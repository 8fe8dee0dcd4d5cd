// The files of the page, built into the program from web/ (see
// cmake/embed_files.cmake): nothing the server sends comes from the disk
// but the card.
#pragma once

#include <cstddef>

struct PageAsset {
    const char *path;           // "/index.html"
    const char *type;           // content type
    const unsigned char *data;  // the file's bytes
    size_t size;                // their count
};

extern const PageAsset kPageAssets[];
extern const size_t kPageAssetCount;
