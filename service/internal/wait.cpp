#include "service/internal/wait.h"

#include <errno.h>
#include <sys/select.h>

namespace talvek {
namespace {

// A descriptor that select has no bit for counts as a bad one.
bool FillSet(int fd, fd_set &set) {
    FD_ZERO(&set);
    if (fd < 0 || fd >= FD_SETSIZE) {
        errno = EBADF;
        return false;
    }
    FD_SET(fd, &set);
    return true;
}

}  // namespace

int WaitReadable(int fd, const sigset_t *pMask) {
    fd_set set;
    return FillSet(fd, set) ? pselect(fd + 1, &set, nullptr, nullptr, &kWaitTime, pMask) : -1;
}

int WaitWritable(int fd) {
    fd_set set;
    return FillSet(fd, set) ? pselect(fd + 1, nullptr, &set, nullptr, &kWaitTime, nullptr) : -1;
}

}  // namespace talvek
