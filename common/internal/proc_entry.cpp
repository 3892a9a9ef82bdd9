// Entries of /proc.

#include "common/internal/proc_entry.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace talvek {

bool ReadCmdline(const char *pEntry, char *pLine, size_t size) {
    char path[128];
    if (snprintf(path, sizeof path, "/proc/%s/cmdline", pEntry) >= static_cast<int>(sizeof path)) {
        return false;
    }
    const UniqueFd fd{open(path, O_RDONLY | O_CLOEXEC)};
    const ssize_t length = fd ? read(fd.get(), pLine, size - 1) : -1;
    if (length <= 0) {
        return false;
    }
    pLine[length] = '\0';
    char *newline = static_cast<char *>(memchr(pLine, '\n', static_cast<size_t>(length)));
    if (newline != nullptr) {
        newline[1] = '\0';
    }
    return true;
}

int ParseEntryNumber(const char *pEntry) {
    const long long number = strtoll(pEntry, nullptr, 10);
    return number >= INT_MIN && number <= INT_MAX ? static_cast<int>(number) : 0;
}

}  // namespace talvek
