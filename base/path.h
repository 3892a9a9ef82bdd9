#ifndef TALVEK_BASE_PATH_H
#define TALVEK_BASE_PATH_H

#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace talvek {

// open, fopen and stat for a path that may be NULL, which fails with EFAULT. The C library's own
// functions are declared nonnull. Descriptors are opened with O_CLOEXEC. `pMode` is "r" or "w",
// alone or with "+".
int OpenPath(const char *pPath, int flags, mode_t mode = 0);
FILE *OpenStream(const char *pPath, const char *pMode);
int StatPath(const char *pPath, struct stat *pStat);

// A stream on an open descriptor, which it then owns. A failure closes the descriptor; -1 in its
// place is a failure that leaves errno.
FILE *StreamOn(int fd, const char *pMode);

// How a path or name that may be NULL appears in a message.
inline const char *Shown(const char *pPath) {
    return pPath != nullptr ? pPath : "(null)";
}

// Whether two results of stat are of one file.
inline bool IsSameFile(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// The text after the last "/"; the whole path when it has none.
const char *LastComponent(const char *pPath);

}  // namespace talvek

#endif
