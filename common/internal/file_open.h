#ifndef TALVEK_COMMON_INTERNAL_FILE_OPEN_H
#define TALVEK_COMMON_INTERNAL_FILE_OPEN_H

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

namespace talvek {

// Calls that take a path from a caller. The kernel answers NULL with EFAULT, but the C library
// declares that it is never given one; these keep the kernel's answer. Descriptors are closed in
// programs that are executed.

inline int OpenPath(const char *pPath, int flags, mode_t mode = 0) {
    if (pPath == nullptr) {
        errno = EFAULT;
        return -1;
    }
    return ::open(pPath, flags | O_CLOEXEC, mode);
}

inline FILE *OpenStream(const char *pPath, const char *pMode) {
    if (pPath == nullptr) {
        errno = EFAULT;
        return nullptr;
    }
    return ::fopen(pPath, pMode);
}

inline int StatPath(const char *pPath, struct stat *pStat) {
    if (pPath == nullptr) {
        errno = EFAULT;
        return -1;
    }
    return ::stat(pPath, pStat);
}

// How a path that may be NULL appears in a message.
inline const char *Shown(const char *pPath) {
    return pPath != nullptr ? pPath : "(null)";
}

}  // namespace talvek

#endif
