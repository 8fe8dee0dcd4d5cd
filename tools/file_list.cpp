#include "tools/file_list.h"

#include <cstdio>
#include <cstring>

FileListEntry *FileListAdd(FileListInfo *list, const char *name, uint32_t startTime, uint32_t endTime) {
    if (list->s32FileNum < 0 || list->s32FileNum >= MAX_FILE_NUMBER) return nullptr;
    FileListEntry *entry = &list->stFileList[list->s32FileNum++];
    std::memset(entry, 0, sizeof(*entry));
    std::snprintf(entry->szFileName, sizeof(entry->szFileName), "%s", name);
    entry->u32StartTime = startTime;
    entry->u32EndTime = endTime;
    return entry;
}
