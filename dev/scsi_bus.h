#ifndef TALVEK_DEV_SCSI_BUS_H
#define TALVEK_DEV_SCSI_BUS_H

/* The SCSI hosts of the unit (Linux, /sys/class/scsi_host). */

#ifdef __cplusplus
extern "C" {
#endif

/* Has every SCSI host look for devices anew, on all its channels, ids and units ("- - -" into its
 * scan file). New devices turn up by and by after the call.
 *
 * Returns the number of hosts that were asked, or -1 when there is no list of hosts. */
int Dev_RescanScsiBus(void);

#ifdef __cplusplus
}
#endif

#endif
