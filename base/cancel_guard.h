#ifndef TALVEK_BASE_CANCEL_GUARD_H
#define TALVEK_BASE_CANCEL_GUARD_H

#include <pthread.h>

namespace talvek {

// Disables cancellation of the calling thread for a scope. A request that arrives in the meantime
// acts at the first cancellation point after the scope, so nothing that the scope owns is lost.
// Every entry that blocks begins with one, except those that can be cancelled. Scopes nest.
class CancelGuard {
  public:
    CancelGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancelGuard() { pthread_setcancelstate(before_, nullptr); }
    CancelGuard(const CancelGuard &) = delete;
    CancelGuard &operator=(const CancelGuard &) = delete;

  private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace talvek

#endif
