// The file systems that can be mounted and maintained, and which of them this machine supports.

#include "dev/file_system.h"

#include <string.h>

#include "base/cancel_guard.h"
#include "dev/internal/fs_table.h"

namespace {

using talvek::FsCaps;
using talvek::FsRow;

// DEV_FS_COUNT when there is no such row.
uint32_t RowOfName(const char *pName) {
    uint32_t index = 0;
    while (index < DEV_FS_COUNT && (pName == nullptr || strcmp(FsRow(index).name, pName) != 0)) {
        ++index;
    }
    return index;
}

}  // namespace

void Dev_InitFsArray(void) {
    const talvek::CancelGuard guard;
    talvek::UpdateFsTable(__func__);
}

int Dev_FsCheckFlag(const char *pName, int mode) {
    const talvek::CancelGuard guard;
    const uint32_t row = RowOfName(pName);
    const uint32_t caps = row < DEV_FS_COUNT ? FsCaps(row) : 0;
    if (caps == 0) {
        return -1;
    }
    const bool isMarked = (caps & 1u << DEV_FS_CAP_MARK) != 0;
    switch (mode) {
        case DEV_FS_IS_UNMARKED:
            return isMarked ? -1 : 0;
        case DEV_FS_IS_MARKED:
            return isMarked ? 0 : -1;
        default:
            return 0;
    }
}

const tFsTool *Dev_GetFsTool(const char *pName, uint32_t capBit) {
    return Dev_GetFsToolByIndex(RowOfName(pName), capBit);
}

const tFsTool *Dev_GetFsToolByIndex(uint32_t index, uint32_t capBit) {
    const talvek::CancelGuard guard;
    if (index >= DEV_FS_COUNT || capBit < DEV_FS_CAP_MAKE || capBit > DEV_FS_CAP_MARK ||
        (FsCaps(index) & 1u << capBit) == 0) {
        return nullptr;
    }
    for (const tFsTool &tool : FsRow(index).tools) {
        if (tool.capBit == capBit) {
            return &tool;
        }
    }
    return nullptr;
}
