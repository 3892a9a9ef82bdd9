#ifndef TALVEK_COMMON_COMMON_H
#define TALVEK_COMMON_COMMON_H

/* The runtime library of the unit: logging, files, processes and threads, text and XML scraping,
 * terminals, system information, network interfaces, broadcast datagrams, digests, helpers for
 * media, H.264 headers, the unit's identity.
 *
 * These rules hold for every entry. Where an entry differs, its header says so.
 *
 *   Results       Signed 32-bit integers: 0 for success, -1 for failure. Any other result has a
 *                 name in the header. Scraping functions return a pointer into the text, or NULL.
 *   Errors        A failing system call is logged on standard output (log.h) with its name, its
 *                 argument and the system's error text. There are no log levels, and the log
 *                 cannot be switched off. The value of errno after a call is unspecified.
 *   NULL          A NULL pointer argument makes the call fail: it returns -1, NULL or 0 and writes
 *                 no output. A function without a result does nothing. A NULL path fails like a
 *                 path that cannot be read (EFAULT).
 *   Outputs       Results go into the caller's buffers. After a failure they are unchanged.
 *   Sizes         Sizes are in bytes. A value that does not fit is truncated, and a warning is
 *                 logged. Each entry says whether its size includes the terminating NUL.
 *   Texts         Texts are NUL-terminated, in any encoding that extends ASCII. Case is ignored for
 *                 ASCII letters only, whatever locale the program has set.
 *   Ownership     Arguments stay the caller's. A block that a function returns comes from malloc,
 *                 and the caller releases it with free. Everything else that a function acquires,
 *                 it releases on every path.
 *   Descriptors   Descriptors are opened with close-on-exec: programs that the library or its
 *                 caller executes do not inherit them.
 *   Threads       Calls may run in several threads at once, on separate objects. The only state
 *                 between calls is the thread registry with its watchdog (thread.h), which has its
 *                 own locks.
 *   Cancellation  Cancellation of a thread waits until a call is over. The exceptions are
 *                 COM_SleepAtLeast, COM_CallLocked and the watchdog: they can be cancelled, and
 *                 then release what they hold.
 *   Stack         A call uses less than 8 KiB of stack. COM_Log and COM_LogColor also use what
 *                 printf needs for the message.
 *
 * A rule that comes from a standard or from a file of the kernel is stated with its source.
 *
 * The headers are plain C11 that C++ can include too. */

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
#include "platform.h"
#include "process.h"
#include "settings.h"
#include "system_info.h"
#include "terminal.h"
#include "text.h"
#include "thread.h"
#include "udp_broadcast.h"
#include "unit_info.h"
#include "version.h"
#include "wide_types.h"

#endif
