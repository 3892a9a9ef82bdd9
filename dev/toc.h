#ifndef TALVEK_DEV_TOC_H
#define TALVEK_DEV_TOC_H

/* READ TOC/PMA/ATIP (MMC-6) in three forms: a blank CD's ATIP, a CD's table of contents, the tracks
 * of a DVD.
 *
 * For every entry:
 *
 *   devPath  for the log lines
 *   fd       the drive (scsi.h)
 *   info     the disc's descriptor
 *
 * Results are 1 for success and 0 for failure, when info keeps what it held. The command learns the
 * length of its reply and is sent twice; either may fail. A call takes 64 KiB of stack for the
 * reply. */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ATIP of a CD-R or CD-RW: cdSubType, and totalKB up to the last possible start of the lead-out.
 * Speed, type and the times are told. */
int Dev_ReadCdATIP(const char *devPath, int fd, tDiscInfo *info);

/* Table of contents of a CD, times as minutes, seconds and frames: lastTrack, lastTrackStart and
 * nextLeadIn, which lies 11250 frames behind the lead-out of the first session and 6750 behind
 * that of a later one. A single track counts as a first session.
 *
 * A table in which the last track or the lead-out is missing is a failure. */
int Dev_ReadCdToc(const char *devPath, int fd, tDiscInfo *info);

/* Track list of a DVD-R or DVD+R, in logical block addresses, told line by line, and usedKB from
 * discStatus: what lies before the end of the lead-out's first block on an incomplete disc, totalKB
 * on a finalized one, otherwise 0.
 *
 * Other media and a list without the lead-out are failures; nothing is sent for the former. */
int Dev_ReadDvdRToc(const char *devPath, int fd, tDiscInfo *info);

#ifdef __cplusplus
}
#endif

#endif
