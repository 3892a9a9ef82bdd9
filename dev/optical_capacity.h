#ifndef TALVEK_DEV_OPTICAL_CAPACITY_H
#define TALVEK_DEV_OPTICAL_CAPACITY_H

/* Used capacity of a rewritable disc: the size of the file system that it carries.
 *
 * Each entry mounts the record's devPath as ISO 9660, reading only, on a directory of its own
 * below /var (which is made, and unmounted first if something is left there), sets u.disc.usedKB
 * from f_bsize * f_blocks of statfs, unmounts, and gives the drive a second before it returns.
 *
 * Returns 1, or 0 with usedKB as it was: no record, no directory, no mount (a disc without an
 * ISO 9660 file system), no statfs. Two threads may not measure the same kind of disc at once,
 * since they would share the directory. */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

int Dev_GetDvdPlusRwInfo(tDevInfo *dev);  /* on /var/dvd_plus_rw */
int Dev_GetDvdMinusRwInfo(tDevInfo *dev); /* on /var/dvd_minus_rw */
int Dev_GetBDReInfo(tDevInfo *dev);       /* on /var/bd_re */

#ifdef __cplusplus
}
#endif

#endif
