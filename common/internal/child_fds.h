#ifndef TALVEK_COMMON_INTERNAL_CHILD_FDS_H
#define TALVEK_COMMON_INTERNAL_CHILD_FDS_H

namespace talvek {

// Closes every descriptor above 2 of the calling process. Safe in a child that shares its parent's
// memory (vfork): it only makes system calls and neither allocates nor locks.
void CloseAllButStdFds();

}  // namespace talvek

#endif
