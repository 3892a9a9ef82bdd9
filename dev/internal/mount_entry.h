#ifndef TALVEK_DEV_INTERNAL_MOUNT_ENTRY_H
#define TALVEK_DEV_INTERNAL_MOUNT_ENTRY_H

#include <stddef.h>

#include "base/heap_buf.h"
#include "base/unique_stream.h"
#include "dev/mount_table.h"

namespace talvek {

// One mount, with the kernel's escapes decoded. A field that the line lacks is empty.
struct MountLine {
    const char *device;
    const char *mountPoint;
    const char *type;
    const char *options;
};

// Reads the lines of /proc/mounts in order, each whole: the options of an NFS mount are often
// longer than 256 characters, and the server's address is the last of them.
class MountReader {
  public:
    // Logs for the entry `pFunction` when the file cannot be opened; there are no lines then.
    explicit MountReader(const char *pFunction);

    // The next line that has a device and a mount point. Its texts are valid until the next call.
    bool Next(MountLine &line);

  private:
    UniqueFile stream_;
    HeapBuf<char> line_;
    size_t capacity_ = 0;
};

// The fields of an entry that did not fit.
struct CutFields {
    bool device = false;
    bool options = false;
};

// Finds the mount on a directory as Dev_GetEntryViaMtab does, and logs in its name. False leaves
// `entry` and `cut` unchanged.
bool FindMountEntry(const char *pDir, tMountEntry &entry, CutFields &cut);

}  // namespace talvek

#endif
