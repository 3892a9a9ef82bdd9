#ifndef TALVEK_SERVICE_INTERNAL_SEND_BYTES_H
#define TALVEK_SERVICE_INTERNAL_SEND_BYTES_H

#include <stddef.h>
#include <sys/types.h>

namespace talvek {

// The outcome of a series of writes.
struct Sent {
    size_t count;  // bytes written
    ssize_t last;  // result of the last write; errno is that write's
};

// Writes until all bytes are written, or a write fails or writes nothing. A socket whose peer has
// closed fails with EPIPE, without SIGPIPE.
Sent SendBytes(int fd, const void *pBytes, size_t size);

}  // namespace talvek

#endif
