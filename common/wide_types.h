#ifndef TALVEK_COMMON_WIDE_TYPES_H
#define TALVEK_COMMON_WIDE_TYPES_H

/* The library supports files over 2 GiB and dates after January 2038: off_t and time_t have 64
 * bits. A 32-bit program must be compiled with the same sizes as the library. Every header that
 * uses these types includes this one, because neither compiler nor linker reports a difference. */

#include <assert.h>
#include <sys/types.h>
#include <time.h>

static_assert(sizeof(off_t) == 8, "compile with -D_FILE_OFFSET_BITS=64");
static_assert(sizeof(time_t) == 8, "compile with -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64");

#endif
