#include "support/opened.h"

#include <fcntl.h>

namespace talvek::test {

std::vector<Opened> &OpenedFiles() {
    // Kept beyond the last destructor: a program that measures coverage opens files at its very
    // end.
    static std::vector<Opened> &files = *new std::vector<Opened>;
    return files;
}

}  // namespace talvek::test

extern "C" {
int __real_open(const char *path, int flags, ...);
int __real_open64(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, mode_t mode);
int __wrap_open64(const char *path, int flags, mode_t mode);
}

int __wrap_open(const char *path, int flags, mode_t mode) {
    talvek::test::OpenedFiles().push_back({path, flags & ~O_LARGEFILE, mode});
    return __real_open(path, flags, mode);
}

int __wrap_open64(const char *path, int flags, mode_t mode) {
    talvek::test::OpenedFiles().push_back({path, flags & ~O_LARGEFILE, mode});
    return __real_open64(path, flags, mode);
}
