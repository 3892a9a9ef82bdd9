#ifndef TALVEK_DEV_DEV_H
#define TALVEK_DEV_DEV_H

/* The unit's storage devices: SCSI requests, discs in optical drives, enumeration, mounts and file
 * systems, identity and health of a disk, the technician's test menu.
 *
 * Conventions that hold for every entry:
 *
 *   - Results are signed 32-bit integers. The queries of a drive or a disc (scsi.h, optical_disc.h)
 *     return 1 for success and 0 for failure; the other entries 0 for success and -1 or another
 *     negative code. Each entry says which.
 *   - Failures are logged on standard output with the module name DEV and the entry's own name.
 *     Raw dumps (sense bytes, hex dumps, device lists, track details) are written there without a
 *     prefix, in order with the log lines around them.
 *   - A text that stands for a device in a message may be NULL and then counts as empty, unless the
 *     entry says otherwise. Any other pointer that is NULL makes the entry fail, never crash.
 *   - Bytes that a device returns are never trusted for a length: a reply that is shorter than a
 *     field needs gives zero for that field.
 *   - Descriptors of the caller stay open and stay the caller's. A descriptor may not be used by
 *     two threads at once; apart from that, calls may run in several threads unless an entry says
 *     otherwise.
 *   - Sizes named KB count 1024 bytes.
 *
 * The headers are plain C11 and can be read by C++. */

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
