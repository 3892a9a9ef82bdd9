#ifndef TALVEK_BASE_FILE_LIMIT_GUARD_H
#define TALVEK_BASE_FILE_LIMIT_GUARD_H

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include "base/scope_exit.h"

namespace talvek {

// For a scope, a write beyond the limit of a file's size (RLIMIT_FSIZE) fails with EFBIG, and
// SIGXFSZ does not end the program. Code that continues short writes needs it: the kernel cuts one
// write at the limit and raises the signal for the next. The destructor keeps errno.
class FileLimitGuard {
  public:
    FileLimitGuard() {
        sigemptyset(&signal_);
        sigaddset(&signal_, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &signal_, &before_);
    }
    ~FileLimitGuard() {
        const ErrnoKeeper keep;
        const struct timespec now = {};
        while (sigtimedwait(&signal_, nullptr, &now) > 0) {
        }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    FileLimitGuard(const FileLimitGuard &) = delete;
    FileLimitGuard &operator=(const FileLimitGuard &) = delete;

  private:
    sigset_t signal_;
    sigset_t before_;
};

}  // namespace talvek

#endif
