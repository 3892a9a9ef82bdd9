#ifndef TALVEK_DEV_SCSI_BUS_H
#define TALVEK_DEV_SCSI_BUS_H

/* The SCSI hosts of the unit (Linux, /sys/class/scsi_host). */

#ifdef __cplusplus
extern "C" {
#endif

/* Makes every SCSI host scan for new devices on all its channels, ids and units: writes "- - -"
 * into its file "scan". New devices appear some time after the call.
 *
 * Returns the number of hosts that accepted the scan, or -1 when there is no list of hosts. */
int Dev_RescanScsiBus(void);

#ifdef __cplusplus
}
#endif

#endif
