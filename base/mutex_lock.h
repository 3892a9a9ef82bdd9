#ifndef TALVEK_BASE_MUTEX_LOCK_H
#define TALVEK_BASE_MUTEX_LOCK_H

#include <pthread.h>

namespace talvek {

// Locks a mutex for a scope.
class MutexLock {
  public:
    explicit MutexLock(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexLock() { pthread_mutex_unlock(&mutex_); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

  private:
    pthread_mutex_t &mutex_;
};

}  // namespace talvek

#endif
