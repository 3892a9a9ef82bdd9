#ifndef TALVEK_DEV_ENUMERATION_H
#define TALVEK_DEV_ENUMERATION_H

/* Which disks and optical drives are attached (SATA/ATA, USB, IEEE-1394). */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Finds the block, optical and tape nodes that pair with a SCSI generic node, in the order /dev/sda
 * to sdz, sr0 to sr11, nst0 to nst5, nosst0 to nosst4. Missing sd nodes are made. A disk that is
 * not ready is left out. A ready disk is measured as Dev_GetHDStat (disk_stat.h) does with
 * DEV_FS_DETECT, for which it may be mounted for a moment. Every other node has isOptical 1, a tape
 * too. Each device is listed on standard output.
 *
 *   pDevs  DEV_MAX_DEVICES records, zeroed
 *
 * Time: a unit that is not ready takes three seconds. A device that does not answer takes
 * DEV_MMC_TIMEOUT_MS (scsi.h) for each of two requests. At worst a device takes four requests and
 * three seconds, 83 s, and 32 of them three quarters of an hour; the kernel's attempts to recover a
 * device and the mounts come on top.
 *
 * Returns how many records were filled, 0 to DEV_MAX_DEVICES. */
int Dev_Get(tDevInfo *pDevs);

/* The same walk without measuring, which ends after the first device on USB: of each device the
 * paths, address, bus, readiness and model. isOptical is 0 for all. A disk that is not ready is
 * left out.
 *
 *   pDevs  DEV_MAX_DEVICES records, zeroed
 *
 * Returns how many records were filled, 0 to DEV_MAX_DEVICES. A device on USB was found if the
 * result is above 0 and busType of the last record filled is DEV_BUS_USB. */
int Dev_GetUSBFlashDevice(tDevInfo *pDevs);

/* Examines the SCSI generic nodes /dev/sg0 to sg31, or /dev/sga to sgz where there is no /dev/sg0.
 *
 *   pMap  DEV_MAX_DEVICES rows, one for each node whether it exists or not
 *
 * Returns the number of nodes whose unit is ready; 0 for NULL. */
int Dev_BuildSgMap(tSgMapEntry *pMap);

#ifdef __cplusplus
}
#endif

#endif
