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
 *   - Cancellation of a thread waits until a call is over. The exceptions are COM_SleepAtLeast,
 *     COM_CallLocked and the watchdog, where it acts and what they hold is released.
 *   - There is no state between calls except the thread registry (thread.h), so calls may run in
 *     several threads at once unless an entry says otherwise.
 *
 * The headers are plain C11 and can be read by C++. */

#include "command.h"
#include "digest.h"
#include "file.h"
#include "file_content.h"
#include "file_copy.h"
#include "h264.h"
#include "hex_text.h"
#include "html.h"
#include "io.h"
#include "log.h"
#include "media.h"
#include "net_info.h"
#include "process.h"
#include "settings.h"
#include "system_info.h"
#include "terminal.h"
#include "text.h"
#include "thread.h"
#include "udp_broadcast.h"
#include "unit_info.h"
#include "wide_types.h"

#endif
