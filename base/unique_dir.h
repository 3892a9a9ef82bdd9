#ifndef TALVEK_BASE_UNIQUE_DIR_H
#define TALVEK_BASE_UNIQUE_DIR_H

#include <dirent.h>

#include <utility>

#include "base/scope_exit.h"

namespace talvek {

// Owns a directory stream. The destructor keeps errno.
class UniqueDir {
  public:
    explicit UniqueDir(DIR *dir) : dir_(dir) {}
    UniqueDir(UniqueDir &&other) : dir_(std::exchange(other.dir_, nullptr)) {}
    UniqueDir(const UniqueDir &) = delete;
    UniqueDir &operator=(const UniqueDir &) = delete;
    UniqueDir &operator=(UniqueDir &&) = delete;
    ~UniqueDir() {
        const ErrnoKeeper keep;
        Close();
    }

    [[nodiscard]] DIR *get() const { return dir_; }
    explicit operator bool() const { return dir_ != nullptr; }
    // Closes now and returns the result of closedir; -1 when nothing is owned.
    int Close() { return dir_ != nullptr ? closedir(std::exchange(dir_, nullptr)) : -1; }

  private:
    DIR *dir_;
};

}  // namespace talvek

#endif
