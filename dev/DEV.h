#ifndef TALVEK_DEV_DEV_H
#define TALVEK_DEV_DEV_H

/* The unit's storage devices: SCSI requests, discs in optical drives, enumeration, mounts and file
 * systems, identity and health of a disk, the technician's test menu.
 *
 * Conventions that hold for every entry unless its header says otherwise:
 *
 *   - Results are signed 32-bit integers: 0 for success, -1 for failure. The queries of a drive or
 *     a disc return DEV_QUERY_OK (1) or DEV_QUERY_FAILED (0). Other results have names, or are
 *     counts.
 *   - A failing system call is logged on standard output (common/log.h) with the module name DEV,
 *     the entry's name, the call, its argument and the system's error text. Sense bytes, hex dumps,
 *     device lists and track details are printed there without that prefix, in order with the log
 *     lines around them.
 *   - errno means nothing after a call; the log line has the reason.
 *   - A device path that is only logged may be NULL and then counts as empty. Any other NULL makes
 *     the entry fail; most entries log it.
 *   - After a failure outputs are unchanged.
 *   - Texts are NUL-terminated. Sizes are in bytes, including the NUL. A text that does not fit its
 *     buffer is truncated, and a warning is logged. KB means 1024 bytes.
 *   - Buffers and records belong to the caller. A descriptor that the caller passes stays open.
 *     Descriptors that an entry opens are closed before it returns; programs that are executed in
 *     the meantime do not inherit them (O_CLOEXEC).
 *   - Bytes from a device are never used as a length without a check. A reply is as long as the
 *     request; a field beyond its end, and bytes that the device did not send, read as 0.
 *   - Calls may run in several threads at once, but two threads must not use one descriptor at the
 *     same time. Cancellation of a thread waits until a call is over.
 *   - An entry uses at most 12 KiB of stack. Entries that use DEV_REPLY_SIZE bytes more say so.
 *
 * The headers are plain C11 that C++ can include too. */

#include "../common/platform.h"
#include "../common/version.h"
#include "device.h"
#include "disk_stat.h"
#include "enumeration.h"
#include "file_system.h"
#include "ide.h"
#include "mmc_commands.h"
#include "mount.h"
#include "mount_table.h"
#include "naming.h"
#include "optical_capacity.h"
#include "optical_disc.h"
#include "scsi.h"
#include "scsi_bus.h"
#include "test_menu.h"
#include "toc.h"

#endif
