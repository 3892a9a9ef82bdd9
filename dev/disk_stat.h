#ifndef TALVEK_DEV_DISK_STAT_H
#define TALVEK_DEV_DISK_STAT_H

/* The size of a disk and the space on its file system. */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Measures a disk: u.disk of the record and, when the disk is mounted, mountPoint.
 *
 *   pDev     the record; devPath names the disk or partition. A disk counts as mounted where the
 *            first device is that begins with its name ("/dev/sda1" for "/dev/sda").
 *   fsIndex  as for Dev_Mount (mount.h), to mount a disk that is not mounted. That mount stands
 *            below /var only while the disk is measured, and mountPoint is then empty.
 *            With DEV_FS_DETECT a disk without a known file system gets a tmpfs there, and that is
 *            measured: fsType is 0x01021994 (TMPFS_MAGIC of linux/magic.h).
 *
 * u.disk.deviceBytes is asked of the device itself, and is 0 when it does not tell; of an array
 * ("/dev/md...") it is left alone. The counts of blocks end at 2^32 - 1; the counts of bytes do
 * not.
 *
 * Returns 1 when it was measured through a mount of its own, 0 when it was measured where it was
 * mounted, -1 when the file system could not be measured (u.disk then holds deviceBytes alone). */
int Dev_GetHDStat(tDevInfo *pDev, unsigned fsIndex);

#ifdef __cplusplus
}
#endif

#endif
