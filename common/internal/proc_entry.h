#ifndef TALVEK_COMMON_INTERNAL_PROC_ENTRY_H
#define TALVEK_COMMON_INTERNAL_PROC_ENTRY_H

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

#include "base/path.h"
#include "base/unique_stream.h"

namespace talvek {

// Reads the first line, and at most size - 1 bytes, of /proc/<entry>/cmdline. The arguments of the
// process stand there with a NUL behind each, so as a text the line ends with the program's name.
// False when there is none: no such process, or a thread of the kernel.
inline bool ReadCmdline(const char *pEntry, char *pLine, int size) {
    char path[sizeof "/proc//cmdline" + NAME_MAX];
    snprintf(path, sizeof path, "%s/%s/%s", "/proc", pEntry, "cmdline");
    const UniqueFile stream{OpenStream(path, "r")};
    return stream && fgets(pLine, size, stream.get()) != nullptr;
}

// The process number that an entry of /proc begins with; 0 when it begins with none or with one
// that no process can have.
inline int PidOfEntry(const char *pEntry) {
    const long long pid = strtoll(pEntry, nullptr, 10);
    return pid >= INT_MIN && pid <= INT_MAX ? static_cast<int>(pid) : 0;
}

}  // namespace talvek

#endif
