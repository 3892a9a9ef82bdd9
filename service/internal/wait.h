#ifndef TALVEK_SERVICE_INTERNAL_WAIT_H
#define TALVEK_SERVICE_INTERNAL_WAIT_H

#include <signal.h>
#include <time.h>

namespace talvek {

// Every wait of the service ends after this time and starts again.
constexpr timespec kWaitTime{5, 0};

// Waits as select does until the descriptor, any number from 0 on, can be read, or written. Greater
// than 0 when it can, 0 after kWaitTime, -1 with errno for an error. `pMask`, if given, is the
// signal mask meanwhile.
int WaitReadable(int fd, const sigset_t *pMask = nullptr);
int WaitWritable(int fd);

}  // namespace talvek

#endif
