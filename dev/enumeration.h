#ifndef TALVEK_DEV_ENUMERATION_H
#define TALVEK_DEV_ENUMERATION_H

/* What disks and optical drives are attached (SATA/ATA, USB, IEEE-1394). */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Finds the devices: the block and optical nodes that pair with a SCSI generic node, in the order
 * /dev/sda to sdz, sr0 to sr11, nst0 to nst5, nosst0 to nosst4. Missing sd nodes are made. A disk
 * that is not ready is left out; a ready one is measured, for which it may be mounted for a moment
 * (Dev_GetHDStat, disk_stat.h). Nodes that are not disks count as optical drives.
 *
 *   devs  DEV_MAX_DEVICES records, zeroed
 *
 * Each device is told on standard output. Returns how many records were filled, 0 for NULL. A unit
 * that is not ready takes three seconds. */
int Dev_Get(tDevInfo *devs);

/* The same walk without measuring: of every device its nodes, bus and model, up to and with the
 * first one on USB. Disks and optical drives are not told apart (isOptical stays 0). */
int Dev_GetUSBFlashDevice(tDevInfo *devs);

/* Lists the SCSI generic nodes /dev/sg0 to sg31, or /dev/sga to sgz where there is no /dev/sg0.
 *
 *   map  DEV_MAX_DEVICES rows, one a node whether it is there or not
 *
 * Returns the number of nodes whose unit is ready, 0 for NULL. */
int Dev_BuildSgMap(tSgMapEntry *map);

#ifdef __cplusplus
}
#endif

#endif
