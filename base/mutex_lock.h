#ifndef TALVEK_BASE_MUTEX_LOCK_H
#define TALVEK_BASE_MUTEX_LOCK_H

#include <pthread.h>

#include "base/thread_annotations.h"

namespace talvek {

// A mutex that needs no initialisation at run time and is never destroyed.
class TALVEK_CAPABILITY("mutex") Mutex {
  public:
    constexpr Mutex() = default;
    Mutex(const Mutex &) = delete;
    Mutex &operator=(const Mutex &) = delete;

    void Lock() TALVEK_ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void Unlock() TALVEK_RELEASE() { pthread_mutex_unlock(&mutex_); }
    [[nodiscard]] bool TryLock() TALVEK_TRY_ACQUIRE(true) {
        return pthread_mutex_trylock(&mutex_) == 0;
    }
    // Unlocks it whichever thread has locked it. In a forked child that thread does not exist.
    void Reset() { pthread_mutex_init(&mutex_, nullptr); }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// Locks a mutex for a scope.
class TALVEK_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex &mutex) TALVEK_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~MutexLock() TALVEK_RELEASE() { mutex_.Unlock(); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

  private:
    Mutex &mutex_;
};

}  // namespace talvek

#endif
