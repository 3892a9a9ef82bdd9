#ifndef TALVEK_SERVICE_INTERNAL_SEND_BYTES_H
#define TALVEK_SERVICE_INTERNAL_SEND_BYTES_H

#include <stddef.h>
#include <sys/types.h>

namespace talvek {

// How far a run of writes came.
struct Sent {
    size_t count;  // bytes written
    ssize_t last;  // what the last write returned
};

// Writes to a socket until all bytes are written or a write returns 0 or less. A peer that has gone
// gives EPIPE, never SIGPIPE.
Sent SendBytes(int fd, const void *pBytes, size_t size);

}  // namespace talvek

#endif
