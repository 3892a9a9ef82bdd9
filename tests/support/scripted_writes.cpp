#include "support/scripted_writes.h"

#include <errno.h>

#include <algorithm>

namespace talvek::test {

// Kept beyond the last destructor: a program that measures coverage writes at its very end.
std::deque<ssize_t> &g_writes = *new std::deque<ssize_t>;

}  // namespace talvek::test

extern "C" {
ssize_t __real_write(int fd, const void *buf, size_t size);
ssize_t __wrap_write(int fd, const void *buf, size_t size);
}

ssize_t __wrap_write(int fd, const void *buf, size_t size) {
    auto &writes = talvek::test::g_writes;
    if (writes.empty()) {
        return __real_write(fd, buf, size);
    }
    const ssize_t next = writes.front();
    writes.pop_front();
    if (next < 0) {
        errno = static_cast<int>(-next);
        return -1;
    }
    return next == 0 ? 0 : __real_write(fd, buf, std::min(size, static_cast<size_t>(next)));
}
