#ifndef TALVEK_COMMON_INTERNAL_SCOPE_EXIT_H
#define TALVEK_COMMON_INTERNAL_SCOPE_EXIT_H

#include <errno.h>

#include <utility>

namespace talvek {

// Runs an action at the end of the scope, also when a cancelled thread unwinds through it.
template <typename Action>
class ScopeExit {
  public:
    explicit ScopeExit(Action action) : action_(std::move(action)) {}
    ~ScopeExit() noexcept(false) { action_(); }
    ScopeExit(const ScopeExit &) = delete;
    ScopeExit &operator=(const ScopeExit &) = delete;

  private:
    Action action_;
};

// Keeps errno over a destructor or a clean-up that makes system calls of its own.
class ErrnoKeeper {
  public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

  private:
    int saved_;
};

}  // namespace talvek

#endif
