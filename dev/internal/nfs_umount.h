#ifndef TALVEK_DEV_INTERNAL_NFS_UMOUNT_H
#define TALVEK_DEV_INTERNAL_NFS_UMOUNT_H

#include "dev/mount_table.h"

namespace talvek {

// Tells the server of an NFS mount that is gone. Log lines carry the entry's name `pFunction`.
void TellNfsServer(const char *pFunction, const tMountEntry &entry);

}  // namespace talvek

#endif
