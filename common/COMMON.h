#ifndef TALVEK_COMMON_COMMON_H
#define TALVEK_COMMON_COMMON_H

/* The runtime library of the unit: logging, files, processes and threads, text and XML scraping,
 * terminals, network interfaces, broadcast frames, digests, H.264 headers, the unit's identity.
 *
 * Conventions that hold for every entry:
 *
 *   - Results are signed 32-bit integers, 0 for success and -1 (or another negative code that the
 *     entry names) for failure. Scraping functions return a pointer into the text or NULL.
 *   - Outputs go into buffers of the caller, whose sizes in bytes travel beside them. What does not
 *     fit is cut and a warning is logged; an entry says where a terminating NUL is counted.
 *   - A failing system call is logged on standard output (log.h) with its name, its argument and
 *     the system's error text, unless the header says otherwise. There are no levels and there is
 *     no switch.
 *   - An output that an entry does not mention after a failure holds what it held before.
 *   - Descriptors and heap blocks are released by the function that acquired them, on every path.
 *     A block that a function hands out comes from malloc; the caller releases it with free.
 *   - Descriptors that the library opens are closed in programs that it or its caller executes
 *     (FD_CLOEXEC).
 *   - Nothing throws. A thread may be cancelled inside any call that blocks; what the call holds is
 *     released.
 *   - There is no state between calls except the thread registry (thread.h), so calls may run in
 *     several threads at once unless an entry says otherwise.
 *
 * The headers are plain C11 and can be read by C++. */

#include <assert.h>
#include <sys/types.h>
#include <time.h>

/* The library keeps files over 2 GiB and dates past January 2038. */
static_assert(sizeof(off_t) == 8, "compile with -D_FILE_OFFSET_BITS=64");
static_assert(sizeof(time_t) == 8, "compile with -D_TIME_BITS=64");

#include "common/command.h"
#include "common/digest.h"
#include "common/file.h"
#include "common/file_content.h"
#include "common/file_copy.h"
#include "common/h264.h"
#include "common/hex_text.h"
#include "common/html.h"
#include "common/io.h"
#include "common/log.h"
#include "common/media.h"
#include "common/net_info.h"
#include "common/process.h"
#include "common/settings.h"
#include "common/system_info.h"
#include "common/terminal.h"
#include "common/text.h"
#include "common/thread.h"
#include "common/udp_broadcast.h"
#include "common/unit_info.h"

#endif
