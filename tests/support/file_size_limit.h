#ifndef TALVEK_TESTS_SUPPORT_FILE_SIZE_LIMIT_H
#define TALVEK_TESTS_SUPPORT_FILE_SIZE_LIMIT_H

#include <sys/types.h>

#include <functional>

namespace talvek::test {

// Runs `body` in a child that may not make a file longer than `limit` bytes (RLIMIT_FSIZE), with
// its standard output lost. False when `body` returns false, when a signal ends the child
// (SIGXFSZ), or when one is pending after it.
bool UnderFileSizeLimit(off_t limit, const std::function<bool()> &body);

}  // namespace talvek::test

#endif
