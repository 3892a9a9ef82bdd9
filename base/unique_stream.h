#ifndef TALVEK_BASE_UNIQUE_STREAM_H
#define TALVEK_BASE_UNIQUE_STREAM_H

#include <stdio.h>

#include <utility>

#include "base/scope_exit.h"

namespace talvek {

// Owns a stdio stream. `pClose` closes it: fclose for a file; pclose for a command, whose end it
// waits for. The destructor keeps errno.
template <int (*pClose)(FILE *)>
class UniqueStream {
  public:
    UniqueStream() = default;
    explicit UniqueStream(FILE *stream) : stream_(stream) {}
    UniqueStream(UniqueStream &&other) : stream_(other.Release()) {}
    UniqueStream &operator=(UniqueStream &&other) {
        Reset(other.Release());
        return *this;
    }
    UniqueStream(const UniqueStream &) = delete;
    UniqueStream &operator=(const UniqueStream &) = delete;
    ~UniqueStream() { Reset(); }

    [[nodiscard]] FILE *get() const { return stream_; }
    explicit operator bool() const { return stream_ != nullptr; }
    [[nodiscard]] FILE *Release() { return std::exchange(stream_, nullptr); }
    void Reset(FILE *stream = nullptr) {
        FILE *old = std::exchange(stream_, stream);
        if (old != nullptr) {
            const ErrnoKeeper keep;
            pClose(old);
        }
    }
    // Closes now and returns the result of fclose or pclose; -1 when nothing is owned.
    int Close() {
        FILE *old = Release();
        return old != nullptr ? pClose(old) : -1;
    }

  private:
    FILE *stream_ = nullptr;
};

using UniqueFile = UniqueStream<fclose>;
using UniquePipe = UniqueStream<pclose>;

}  // namespace talvek

#endif
