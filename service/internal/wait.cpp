#include "service/internal/wait.h"

#include <errno.h>
#include <poll.h>
#include <sys/select.h>

namespace talvek {
namespace {

// select has no bit for a number from FD_SETSIZE on, which a socket gets where the starter of the
// program has left a thousand descriptors open. poll takes any number.
// Held by DaemonTest.ServesBehindAThousandOpenDescriptors.
int Poll(int fd, short events, const sigset_t *pMask) {
    pollfd entry{fd, events, 0};
    const int ready = ppoll(&entry, 1, &kWaitTime, pMask);
    if (ready > 0 && (entry.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return ready;
}

int Wait(int fd, short events, const sigset_t *pMask) {
    if (fd >= FD_SETSIZE) {
        return Poll(fd, events, pMask);
    }
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    const bool reading = events == POLLIN;
    return pselect(fd + 1, reading ? &set : nullptr, reading ? nullptr : &set, nullptr, &kWaitTime,
                   pMask);
}

}  // namespace

int WaitReadable(int fd, const sigset_t *pMask) {
    return Wait(fd, POLLIN, pMask);
}

int WaitWritable(int fd) {
    return Wait(fd, POLLOUT, nullptr);
}

}  // namespace talvek
