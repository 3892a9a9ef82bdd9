#ifndef TALVEK_DEV_INTERNAL_FS_TABLE_H
#define TALVEK_DEV_INTERNAL_FS_TABLE_H

#include "dev/file_system.h"

namespace talvek {

// A row of the table; what it holds is constant except the mask, which FsCaps reads. The index is
// below DEV_FS_COUNT.
const tFsEntry &FsRow(uint32_t index);

// Finds out what is supported when nobody has yet.
void EnsureFsTable();

// The row's capability mask, as it stands; finds it out first when nobody has yet.
uint32_t FsCaps(uint32_t index);

}  // namespace talvek

#endif
