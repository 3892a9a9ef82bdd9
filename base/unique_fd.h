#ifndef TALVEK_BASE_UNIQUE_FD_H
#define TALVEK_BASE_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

#include "base/scope_exit.h"

namespace talvek {

// Owns a descriptor. The destructor keeps errno.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) : fd_(other.Release()) {}
    UniqueFd &operator=(UniqueFd &&other) {
        Reset(other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { Reset(); }

    [[nodiscard]] int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    [[nodiscard]] int Release() { return std::exchange(fd_, -1); }
    void Reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old >= 0) {
            const ErrnoKeeper keep;
            ::close(old);
        }
    }
    // Closes now and returns the result of close; -1 when nothing is owned.
    int Close() {
        const int old = Release();
        return old >= 0 ? ::close(old) : -1;
    }

  private:
    int fd_ = -1;
};

}  // namespace talvek

#endif
