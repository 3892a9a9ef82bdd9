#ifndef TALVEK_SERVICE_INTERNAL_FILE_ID_H
#define TALVEK_SERVICE_INTERNAL_FILE_ID_H

#include <sys/stat.h>

namespace talvek {

// Identifies the file that a path names now, without following a link. Safe in a signal handler.
struct FileId {
    FileId() = default;
    explicit FileId(const char *pPath) {
        struct stat st;
        known = lstat(pPath, &st) == 0;
        device = known ? st.st_dev : 0;
        inode = known ? st.st_ino : 0;
    }
    // Two files that do not exist are not the same.
    bool operator==(const FileId &other) const {
        return known && other.known && device == other.device && inode == other.inode;
    }

    bool known = false;
    dev_t device = 0;
    ino_t inode = 0;
};

}  // namespace talvek

#endif
