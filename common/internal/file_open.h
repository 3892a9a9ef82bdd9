#ifndef TALVEK_COMMON_INTERNAL_FILE_OPEN_H
#define TALVEK_COMMON_INTERNAL_FILE_OPEN_H

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include "common/internal/unique_fd.h"

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

// fopen with "r" or "w", or either and "+". What fopen allocates ahead of its open is lost when a
// thread is cancelled there; here nothing is held until the file is open.
// Held by CancelOpening.LosesNothing.
inline FILE *OpenStream(const char *pPath, const char *pMode) {
    const bool read = pMode[0] == 'r';
    const int access = pMode[1] == '+' ? O_RDWR : read ? O_RDONLY : O_WRONLY;
    UniqueFd fd{OpenPath(pPath, access | (read ? 0 : O_CREAT | O_TRUNC), 0666)};
    FILE *stream = fd ? fdopen(fd.get(), pMode) : nullptr;
    if (stream != nullptr) {
        static_cast<void>(fd.Release());
    }
    return stream;
}

inline int StatPath(const char *pPath, struct stat *pStat) {
    if (pPath == nullptr) {
        errno = EFAULT;
        return -1;
    }
    return ::stat(pPath, pStat);
}

// How a path or name that may be NULL appears in a message.
inline const char *Shown(const char *pPath) {
    return pPath != nullptr ? pPath : "(null)";
}

}  // namespace talvek

#endif
