#ifndef TALVEK_DEV_OPTICAL_CAPACITY_H
#define TALVEK_DEV_OPTICAL_CAPACITY_H

/* Used capacity of a rewritable disc: the size of the file system on it.
 *
 * Each entry mounts pDev->devPath read-only as ISO 9660 on a directory of its own below /var, sets
 * u.disc.usedKB from f_bsize * f_blocks of statfs(2), unmounts, and waits one second for the drive.
 * The directory is made if it does not exist, and anything mounted on it before is unmounted. A
 * symbolic link in its place is not followed and counts as a directory that cannot be made.
 * Other users must not be able to rename in /var: a directory that they put in its place after this
 * check is used.
 *
 * Returns DEV_QUERY_OK, or DEV_QUERY_FAILED with usedKB unchanged: pDev is NULL, or making the
 * directory, mounting (a disc without ISO 9660) or statfs failed. Two threads must not measure the
 * same kind of disc at the same time, since they would use the same directory. */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

int Dev_GetDvdPlusRwInfo(tDevInfo *pDev);  /* on /var/dvd_plus_rw */
int Dev_GetDvdMinusRwInfo(tDevInfo *pDev); /* on /var/dvd_minus_rw */
int Dev_GetBDReInfo(tDevInfo *pDev);       /* on /var/bd_re */

#ifdef __cplusplus
}
#endif

#endif
