// Writing without a rest.

#include "common/internal/write_whole.h"

#include <errno.h>
#include <unistd.h>

#include "base/file_limit_guard.h"

namespace talvek {

bool WriteWhole(int fd, const char *pBytes, size_t size) {
    const FileLimitGuard limit;
    while (size > 0) {
        const ssize_t count = write(fd, pBytes, size);
        if (count > 0) {
            pBytes += count;
            size -= static_cast<size_t>(count);
        } else if (count == 0) {
            // A device that takes nothing without an error would be asked for ever.
            errno = EIO;
            return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace talvek
