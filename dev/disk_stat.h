#ifndef TALVEK_DEV_DISK_STAT_H
#define TALVEK_DEV_DISK_STAT_H

/* The size of a disk and the space on its file system. */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Results of Dev_GetHDStat. */
enum {
    DEV_HD_STAT_MOUNTED = 0,   /* measured where the disk is mounted; mountPoint is set */
    DEV_HD_STAT_OWN_MOUNT = 1, /* measured through a mount of its own; mountPoint is empty */
    DEV_HD_STAT_FAILED = -1,   /* of u.disk only deviceBytes is set; mountPoint is set or emptied */
};

/* Measures a disk and its file system: u.disk and mountPoint of the record.
 *
 *   pDev     devPath names the disk or partition. The disk counts as mounted when the name of a
 *            mounted device begins with devPath ("/dev/sda1" for "/dev/sda"); the first such mount
 *            is measured.
 *   fsIndex  as for Dev_Mount (mount.h). A disk that is not mounted is mounted with it below /var
 *            while it is measured. With DEV_FS_DETECT a disk without a known file system gets a
 *            tmpfs there: fsType is then DEV_FS_TYPE_TMPFS (file_system.h), and the sizes are those
 *            of the tmpfs.
 *
 * u.disk.deviceBytes is read from the device and is 0 when that fails; for an array ("/dev/md...")
 * it is unchanged. Counts of blocks above UINT32_MAX read as UINT32_MAX; counts of bytes are exact.
 *
 * Returns a result from the list above. */
int Dev_GetHDStat(tDevInfo *pDev, unsigned fsIndex);

#ifdef __cplusplus
}
#endif

#endif
