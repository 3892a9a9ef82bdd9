#ifndef TALVEK_COMMON_INTERNAL_PROC_ENTRY_H
#define TALVEK_COMMON_INTERNAL_PROC_ENTRY_H

#include <stddef.h>

namespace talvek {

// Reads the first line, with its newline, and at most size - 1 bytes of /proc/<entry>/cmdline. The
// arguments there have a NUL after each, so that as a text the line ends after the program's name.
// False when there is none: no such process, a zombie, or a thread of the kernel.
bool ReadCmdline(const char *pEntry, char *pLine, size_t size);

// The number at the beginning of the name of an entry of /proc or /proc/<pid>/fd; 0 when there is
// none or it does not fit an int.
int ParseEntryNumber(const char *pEntry);

}  // namespace talvek

#endif
