#ifndef TALVEK_DEV_OPTICAL_DISC_H
#define TALVEK_DEV_OPTICAL_DISC_H

/* Which disc is in a drive, in what state it is and how much of it is used. */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Results of Dev_GetDiscInfo. */
enum {
    DEV_DISC_INFO_OK = 0,             /* what the drive did not report is 0 in u.disc */
    DEV_DISC_INFO_NO_RECORD = 1,      /* pDev is NULL */
    DEV_DISC_INFO_NOT_OPTICAL = 2,    /* isOptical is 0 */
    DEV_DISC_INFO_OPEN_FAILED = -1,   /* sgPath cannot be opened */
    DEV_DISC_INFO_NOT_READY = -129,   /* no disc, or the tray is open */
    DEV_DISC_INFO_UNSUPPORTED = -130, /* unsupported profile (mmc_commands.h), or none reported */
};

/* Identifies the disc in one drive of an enumeration.
 *
 *   pDev  isOptical, sgPath (the node that is opened) and devPath (for the log lines; a rewritable
 *         DVD is mounted by it) are read; ready and u.disc are set
 *
 * A drive that is not ready takes three seconds. A drive that does not answer counts as ready
 * (Dev_ExecMMC, scsi.h): the result is DEV_DISC_INFO_UNSUPPORTED after three requests, each of
 * which takes DEV_MMC_TIMEOUT_MS and the kernel's attempts to recover the drive, so more than a
 * minute. No call sends more than eleven requests.
 *
 * The record is unchanged by DEV_DISC_INFO_NOT_OPTICAL and DEV_DISC_INFO_OPEN_FAILED. Uses
 * DEV_REPLY_SIZE bytes of stack more than other entries. */
int Dev_GetDiscInfo(tDevInfo *pDev);

/* Reads what Dev_GetDiscInfo reports of a CD: ATIP, disc information and, on an incomplete disc,
 * the table of contents. usedKB (device.h) of an incomplete disc is twice nextLeadIn; when the
 * table cannot be read, nextLeadIn is the caller's.
 *
 *   pDevPath  for the log lines
 *   fd        the drive (scsi.h)
 *   pInfo     the descriptor, with discClass DEV_CLASS_CD
 *
 * Returns DEV_QUERY_OK, or DEV_QUERY_FAILED when ATIP or disc information cannot be read; pInfo
 * then holds what was read before, and usedKB is unchanged. Uses DEV_REPLY_SIZE bytes of stack
 * more than other entries. */
int Dev_GetCdInfo(const char *pDevPath, int fd, tDiscInfo *pInfo);

#ifdef __cplusplus
}
#endif

#endif
