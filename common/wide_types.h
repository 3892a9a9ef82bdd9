#ifndef TALVEK_COMMON_WIDE_TYPES_H
#define TALVEK_COMMON_WIDE_TYPES_H

/* The library keeps files over 2 GiB and dates past January 2038: off_t and time_t have 64 bits. On
 * 32-bit targets a program is compiled as the library is. Every header that uses these types
 * includes this one, since an argument of the other size is passed without a warning. */

#include <assert.h>
#include <sys/types.h>
#include <time.h>

static_assert(sizeof(off_t) == 8, "compile with -D_FILE_OFFSET_BITS=64");
static_assert(sizeof(time_t) == 8, "compile with -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64");

#endif
