#ifndef TALVEK_DEV_OPTICAL_DISC_H
#define TALVEK_DEV_OPTICAL_DISC_H

/* What disc is in a drive, in what state it is and how much of it is used. */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Identifies the disc in one drive of an enumeration. Takes 64 KiB of stack.
 *
 *   dev  isOptical, sgPath (the node that is opened) and devPath (for the log lines, and mounted to
 *        measure a rewritable DVD) say which; ready and u.disc are filled in
 *
 * Returns
 *      0  done; what the drive did not tell is 0 in u.disc
 *      1  dev is NULL
 *      2  the record is not that of an optical drive
 *     -1  the node cannot be opened
 *   -129  the drive is not ready (no disc, tray open); takes three seconds
 *   -130  the disc's profile is not supported (mmc_commands.h), or the drive does not tell it
 * The record is untouched by the results 1, 2 and -1. */
int Dev_GetDiscInfo(tDevInfo *dev);

/* The whole sequence for a CD: ATIP, disc information, and for a disc that is still open the table
 * of contents. usedKB is what lies before the next session's lead-in on an incomplete disc (twice
 * the nextLeadIn that info had when the table cannot be read), totalKB on a finalized one,
 * otherwise 0.
 *
 *   devPath  for the log lines
 *   fd       the drive (scsi.h)
 *   info     the descriptor with discClass 1
 *
 * Returns 1, or 0 when ATIP or disc information cannot be read; info then holds what was found
 * before, and usedKB as it was. */
int Dev_GetCdInfo(const char *devPath, int fd, tDiscInfo *info);

#ifdef __cplusplus
}
#endif

#endif
