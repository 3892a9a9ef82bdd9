// Closes the descriptors that a command must not inherit.

#include "common/internal/child_fds.h"

#include <dirent.h>
#include <fcntl.h>
#include <stddef.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "common/internal/proc_entry.h"

namespace {

constexpr int kFirst = STDERR_FILENO + 1;

// The C library's records are the kernel's (struct linux_dirent64).
static_assert(sizeof(dirent::d_ino) == 8 && offsetof(dirent, d_reclen) == 16 &&
              offsetof(dirent, d_name) == 19);

// Closes the descriptors that /proc/self/fd lists. Closing descriptors does not make the listing
// skip others. False when it cannot be opened.
bool CloseListed() {
    close(kFirst);  // room for the listing when every number is in use
    const int listing = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (listing < 0) {
        return false;
    }
    alignas(dirent) char block[1024];
    long size;
    while ((size = syscall(SYS_getdents64, listing, block, sizeof block)) > 0) {
        for (long at = 0; at < size;) {
            const auto *entry = reinterpret_cast<const dirent *>(block + at);
            const int fd = talvek::ParseEntryNumber(entry->d_name);
            if (fd >= kFirst && fd != listing) {
                close(fd);
            }
            at += entry->d_reclen;
        }
    }
    close(listing);
    return true;
}

}  // namespace

namespace talvek {

void CloseAllButStdFds() {
#ifdef SYS_close_range
    if (syscall(SYS_close_range, kFirst, ~0U, 0) == 0) {
        return;
    }
#endif
    // There is no close_range before Linux 5.9. Without /proc every number up to the limit is
    // closed.
    if (!CloseListed()) {
        const long limit = sysconf(_SC_OPEN_MAX);
        for (int fd = kFirst; fd < limit; ++fd) {
            close(fd);
        }
    }
}

}  // namespace talvek
