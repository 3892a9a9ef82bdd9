#ifndef TALVEK_DEV_ENUMERATION_H
#define TALVEK_DEV_ENUMERATION_H

/* Which disks and optical drives are attached (SATA/ATA, USB, IEEE-1394). */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Finds the block, optical and tape nodes that pair with a SCSI generic node, in the order /dev/sda
 * to sdz, sr0 to sr11, nst0 to nst5, nosst0 to nosst4. Missing /dev/sd nodes are created. A disk
 * that is not ready is left out. A ready disk is measured with Dev_GetHDStat (disk_stat.h) and
 * DEV_FS_DETECT; a disk that is not mounted is mounted while it is measured. Every other node has
 * isOptical 1, a tape too. Each device is listed on standard output.
 *
 *   pDevs  DEV_MAX_DEVICES records, zeroed
 *
 * Time: a unit that is not ready takes three seconds. A device that does not answer takes
 * DEV_MMC_TIMEOUT_MS (scsi.h) for each of two requests. At worst a device takes four requests and
 * three seconds (83 s), and 32 devices three quarters of an hour. The time of the kernel's attempts
 * to recover a device and of the mounts is additional.
 *
 * Returns how many records were filled, 0 to DEV_MAX_DEVICES. */
int Dev_Get(tDevInfo *pDevs);

/* Dev_Get without measuring. It ends after the first device on USB and sets only devPath, sgPath,
 * scsiAddr, busType, ready and model; isOptical is 0 for all. A disk that is not ready is left out.
 *
 *   pDevs  DEV_MAX_DEVICES records, zeroed
 *
 * Returns how many records were filled, 0 to DEV_MAX_DEVICES. A device on USB was found if the
 * result is above 0 and busType of the last record filled is DEV_BUS_USB. */
int Dev_GetUSBFlashDevice(tDevInfo *pDevs);

/* Reads the address and the readiness of the SCSI generic nodes /dev/sg0 to sg31, or /dev/sga to
 * sgz where there is no /dev/sg0. The log then names the six rows that have no letter.
 *
 *   pMap  DEV_MAX_DEVICES rows, one for each node whether it exists or not
 *
 * Returns the number of nodes whose unit is ready; 0 for NULL. */
int Dev_BuildSgMap(tSgMapEntry *pMap);

#ifdef __cplusplus
}
#endif

#endif
