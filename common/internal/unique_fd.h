#ifndef TALVEK_COMMON_INTERNAL_UNIQUE_FD_H
#define TALVEK_COMMON_INTERNAL_UNIQUE_FD_H

#include <dirent.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <utility>

#include "common/internal/scope_exit.h"

namespace talvek {

// Owns a descriptor. errno outlives the destructor.
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
    ~UniqueFd() noexcept(false) { Reset(); }

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
    // Closes now and returns what close returned; -1 when nothing is held.
    int Close() {
        const int old = Release();
        return old >= 0 ? ::close(old) : -1;
    }

  private:
    int fd_ = -1;
};

// Owns a stdio stream. What was written and not flushed is dropped at its end: closing would try
// again what has failed, and while a cancelled thread unwinds it could block for ever. errno
// outlives the destructor.
class UniqueFile {
  public:
    UniqueFile() = default;
    explicit UniqueFile(FILE *stream) : stream_(stream) {}
    UniqueFile(UniqueFile &&other) : stream_(other.Release()) {}
    UniqueFile &operator=(UniqueFile &&other) {
        Reset(other.Release());
        return *this;
    }
    UniqueFile(const UniqueFile &) = delete;
    UniqueFile &operator=(const UniqueFile &) = delete;
    ~UniqueFile() noexcept(false) { Reset(); }

    [[nodiscard]] FILE *get() const { return stream_; }
    explicit operator bool() const { return stream_ != nullptr; }
    [[nodiscard]] FILE *Release() { return std::exchange(stream_, nullptr); }
    void Reset(FILE *stream = nullptr) {
        FILE *old = std::exchange(stream_, stream);
        if (old != nullptr) {
            const ErrnoKeeper keep;
            __fpurge(old);
            fclose(old);
        }
    }

  private:
    FILE *stream_ = nullptr;
};

// Owns the stream of a popen. Its end closes the pipe and waits for the command. errno outlives the
// destructor.
class UniquePipe {
  public:
    explicit UniquePipe(FILE *stream) : stream_(stream) {}
    UniquePipe(const UniquePipe &) = delete;
    UniquePipe &operator=(const UniquePipe &) = delete;
    ~UniquePipe() noexcept(false) {
        if (stream_ != nullptr) {
            const ErrnoKeeper keep;
            pclose(stream_);
        }
    }

    [[nodiscard]] FILE *get() const { return stream_; }
    explicit operator bool() const { return stream_ != nullptr; }
    // Closes now and returns what pclose returned; -1 when nothing is held.
    int Close() { return stream_ != nullptr ? pclose(std::exchange(stream_, nullptr)) : -1; }

  private:
    FILE *stream_;
};

// Owns a directory stream. errno outlives the destructor.
class UniqueDir {
  public:
    explicit UniqueDir(DIR *dir) : dir_(dir) {}
    UniqueDir(UniqueDir &&other) : dir_(std::exchange(other.dir_, nullptr)) {}
    UniqueDir(const UniqueDir &) = delete;
    UniqueDir &operator=(const UniqueDir &) = delete;
    UniqueDir &operator=(UniqueDir &&) = delete;
    ~UniqueDir() noexcept(false) {
        if (dir_ != nullptr) {
            const ErrnoKeeper keep;
            closedir(dir_);
        }
    }

    [[nodiscard]] DIR *get() const { return dir_; }
    explicit operator bool() const { return dir_ != nullptr; }
    // Closes now and returns what closedir returned; -1 when nothing is held.
    int Close() { return dir_ != nullptr ? closedir(std::exchange(dir_, nullptr)) : -1; }

  private:
    DIR *dir_;
};

}  // namespace talvek

#endif
