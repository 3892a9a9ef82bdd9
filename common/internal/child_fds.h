#ifndef TALVEK_COMMON_INTERNAL_CHILD_FDS_H
#define TALVEK_COMMON_INTERNAL_CHILD_FDS_H

namespace talvek {

// What COM_CloseFdExceptSTD does for the calling process, with one system call where the kernel has
// it (Linux 5.9). Safe in a forked child of a program with threads.
void CloseAllButStdFds();

}  // namespace talvek

#endif
