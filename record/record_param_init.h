// Card state before a record run: the card is mounted, and the index on it
// is loaded and has a media file to record into.
#pragma once

#include <cstdint>

// Loads the index header and current file record from the card once (until
// the card goes away) and decides what a full card means: 0 when a file is
// available, -1 for no index, a bad index, or a full card with overwriting
// forbidden (ucCoverType 0). A file record discarded for reuse sets
// g_bNewFileInfo. A current file found full on loading is left for the next
// file as at the end of the run that filled it, never started again.
int AVRecordParamInit(uint8_t ucCoverType);

// 1 when a mount line of the card ("mmc") is listed in the mount table.
int SDCardMountCheck();
