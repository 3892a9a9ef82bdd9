#ifndef TALVEK_DEV_INTERNAL_FS_TABLE_H
#define TALVEK_DEV_INTERNAL_FS_TABLE_H

#include "dev/file_system.h"

// The file-system table. Only the capability masks change; one thread may recompute them while
// others read them.

namespace talvek {

// The row `index`, below DEV_FS_COUNT. Its `caps` is the initial mask; FsCaps returns the current
// one.
const tFsEntry &FsRow(uint32_t index);

// Recomputes all masks and logs them for the entry `pFunction`.
void UpdateFsTable(const char *pFunction);

// Computes the masks unless that has been done before.
void EnsureFsTable();

// The current mask of a row. The first call computes all masks.
uint32_t FsCaps(uint32_t index);

}  // namespace talvek

#endif
