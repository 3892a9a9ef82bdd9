#ifndef TALVEK_BASE_SCOPE_EXIT_H
#define TALVEK_BASE_SCOPE_EXIT_H

#include <errno.h>

#include <utility>

namespace talvek {

// Runs an action at the end of the scope.
template <typename Action>
class ScopeExit {
  public:
    explicit ScopeExit(Action action) : action_(std::move(action)) {}
    ~ScopeExit() { action_(); }
    ScopeExit(const ScopeExit &) = delete;
    ScopeExit &operator=(const ScopeExit &) = delete;

  private:
    Action action_;
};

// Restores errno at the end of the scope.
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
