// Writes all bytes, in as many writes as it takes.

#include "base/write_all.h"

#include <errno.h>
#include <unistd.h>

#include "base/file_limit_guard.h"

namespace talvek {

Written WriteAll(int fd, const void *pData, ssize_t size, Interrupted interrupted, int maxIdle) {
    Written written{size, 0, -1};
    if (size < 0) {
        errno = EINVAL;
        return written;
    }
    const FileLimitGuard limit;
    const char *bytes = static_cast<const char *>(pData);
    const bool repeats = interrupted == Interrupted::kRepeats;
    int idle = 0;
    do {
        written.last = write(fd, bytes + written.done, static_cast<size_t>(size - written.done));
        if (written.last > 0) {
            written.done += written.last;
            idle = 0;
        } else if (written.last == 0 && written.done < size && ++idle == maxIdle) {
            errno = EIO;
            return written;
        } else if (written.last < 0 && !(repeats && errno == EINTR)) {
            return written;
        }
    } while (written.done < size || written.last < 0);
    return written;
}

}  // namespace talvek
