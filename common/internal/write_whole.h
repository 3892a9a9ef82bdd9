#ifndef TALVEK_COMMON_INTERNAL_WRITE_WHOLE_H
#define TALVEK_COMMON_INTERNAL_WRITE_WHOLE_H

#include <stddef.h>

namespace talvek {

// Writes all bytes, in as many writes as it takes: the kernel reports a full disk only to the write
// after the one that it cut short. False with errno when a write fails; EIO when one takes nothing.
bool WriteWhole(int fd, const char *pBytes, size_t size);

}  // namespace talvek

#endif
