#ifndef TALVEK_BASE_WAIT_H
#define TALVEK_BASE_WAIT_H

#include <signal.h>
#include <stdint.h>

namespace talvek {

// Waits until a descriptor of any number is ready for `events` (POLLIN, POLLOUT), has an error, or
// its peer has gone.
//
//   ms     milliseconds; negative waits for ever
//   pMask  signal mask during the wait (ppoll), or NULL to keep the caller's
//
// Returns 1 when it is ready, 0 after the time, -1 with errno: EINTR after a signal handler, EBADF
// for a descriptor that is not open.
int WaitReady(int fd, short events, int64_t ms, const sigset_t *pMask = nullptr);

}  // namespace talvek

#endif
