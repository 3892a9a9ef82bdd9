#ifndef TALVEK_DEV_TOC_H
#define TALVEK_DEV_TOC_H

/* READ TOC/PMA/ATIP (MMC-6) in three forms: the ATIP of a recordable CD, a CD's table of contents,
 * the tracks of a DVD.
 *
 * For every entry:
 *
 *   pDevPath  for the log lines
 *   fd        the drive (scsi.h)
 *   pInfo     the disc's descriptor
 *
 * Results are DEV_QUERY_OK and DEV_QUERY_FAILED. The command is sent twice, first for the length of
 * the reply, and fails when either request fails. A call uses DEV_REPLY_SIZE bytes of stack more
 * than other entries. */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ATIP of a CD-R or CD-RW: cdSubType, and totalKB up to the last possible start of the lead-out.
 * Speed, type and times are printed and logged. */
int Dev_ReadCdATIP(const char *pDevPath, int fd, tDiscInfo *pInfo);

/* Table of contents of a CD, in minutes, seconds and frames: lastTrack, lastTrackStart and
 * nextLeadIn. The next lead-in lies 11250 frames after the lead-out of the first session and 6750
 * after that of a later one; a disc with one track counts as one session, any other as more than
 * one.
 *
 * Fails when the disc has no track, and when the reply ends before the descriptors of the last
 * track and the lead-out. */
int Dev_ReadCdToc(const char *pDevPath, int fd, tDiscInfo *pInfo);

/* Track list of a DVD-R or DVD+R, in logical block addresses, printed line by line, and usedKB
 * (device.h): of an incomplete disc, twice the number of blocks up to and including the first block
 * of the lead-out.
 *
 * Fails for other media, without a request, and when the list has no lead-out. */
int Dev_ReadDvdRToc(const char *pDevPath, int fd, tDiscInfo *pInfo);

#ifdef __cplusplus
}
#endif

#endif
