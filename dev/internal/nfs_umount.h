#ifndef TALVEK_DEV_INTERNAL_NFS_UMOUNT_H
#define TALVEK_DEV_INTERNAL_NFS_UMOUNT_H

#include "dev/internal/mount_entry.h"

namespace talvek {

// An NFS mount as FindMountEntry found it.
struct NfsMount {
    tMountEntry entry;
    CutFields cut;
};

// Notifies the server of an NFS mount that its export was unmounted. Log lines name the entry
// `pFunction`.
void NotifyNfsServer(const char *pFunction, const NfsMount &mount);

}  // namespace talvek

#endif
