#ifndef TALVEK_BASE_WRITE_ALL_H
#define TALVEK_BASE_WRITE_ALL_H

#include <sys/types.h>

namespace talvek {

// What WriteAll wrote.
struct Written {
    ssize_t size;  // bytes to write
    ssize_t done;  // bytes written
    ssize_t last;  // result of the last write

    [[nodiscard]] bool complete() const { return last >= 0 && done == size; }
};

// What happens to a write that a signal interrupts before it took a byte.
enum class Interrupted { kFails, kRepeats };

// Writes `size` bytes in as many writes as it takes, but at least one. The kernel reports a full
// disk or the limit of a file's size (RLIMIT_FSIZE) only to the write after the one that it cut
// short.
//
//   maxIdle  gives up after this many writes in a row that took no byte without an error, as some
//            devices do for ever
//
// An incomplete result leaves errno: that of the write (EFBIG at the limit, without SIGXFSZ), EIO
// after idle writes, EINVAL for a negative size.
Written WriteAll(int fd, const void *pData, ssize_t size, Interrupted interrupted, int maxIdle = 1);

}  // namespace talvek

#endif
