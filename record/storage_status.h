// Card presence: the card's partition device node exists.
#pragma once

// 0 when the card device "/dev/mmcblk1p1" exists, else -1 (logged with
// errno). The path argument is not used.
int FileUtilsGetStorageStatus(const char *path);
