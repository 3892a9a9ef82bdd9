// Waiting for one descriptor.

#include "base/wait.h"

#include <errno.h>
#include <poll.h>
#include <time.h>

namespace talvek {

int WaitReady(int fd, short events, int64_t ms) {
    if (fd < 0) {  // poll ignores negative descriptors
        errno = EBADF;
        return -1;
    }
    struct pollfd entry = {fd, events, 0};
    const struct timespec time = {static_cast<time_t>(ms / 1000),
                                  static_cast<long>(ms % 1000 * 1'000'000)};
    const int ready = ppoll(&entry, 1, ms < 0 ? nullptr : &time, nullptr);
    if (ready > 0 && (entry.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return ready;
}

}  // namespace talvek
