// Opening and examining files by a path that may be NULL.

#include "base/path.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "base/unique_fd.h"

namespace talvek {

int OpenPath(const char *pPath, int flags, mode_t mode) {
    if (pPath == nullptr) {
        errno = EFAULT;
        return -1;
    }
    return ::open(pPath, flags | O_CLOEXEC, mode);
}

FILE *OpenStream(const char *pPath, const char *pMode) {
    if (pPath == nullptr) {
        errno = EFAULT;
        return nullptr;
    }
    const char mode[] = {pMode[0], 'e', pMode[1], '\0'};  // "e" is O_CLOEXEC
    return ::fopen(pPath, mode);
}

FILE *StreamOn(int fd, const char *pMode) {
    UniqueFd owner{fd};
    FILE *stream = owner ? ::fdopen(fd, pMode) : nullptr;
    if (stream != nullptr) {
        static_cast<void>(owner.Release());
    }
    return stream;
}

int StatPath(const char *pPath, struct stat *pStat) {
    if (pPath == nullptr) {
        errno = EFAULT;
        return -1;
    }
    return ::stat(pPath, pStat);
}

const char *LastComponent(const char *pPath) {
    const char *slash = strrchr(pPath, '/');
    return slash != nullptr ? slash + 1 : pPath;
}

}  // namespace talvek
