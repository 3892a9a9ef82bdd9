#ifndef TALVEK_BASE_WAIT_H
#define TALVEK_BASE_WAIT_H

#include <stdint.h>

namespace talvek {

// Waits until a descriptor is ready for `events` (POLLIN, POLLOUT), has an error, or its peer has
// hung up. Unlike select, it accepts descriptors of FD_SETSIZE and above.
//
//   ms  milliseconds; negative waits for ever
//
// Returns 1 when it is ready; 0 when the time is over; -1 with errno: EINTR when a signal handler
// ran, EBADF when the descriptor is not open.
int WaitReady(int fd, short events, int64_t ms);

}  // namespace talvek

#endif
