#ifndef TALVEK_DEV_MMC_COMMANDS_H
#define TALVEK_DEV_MMC_COMMANDS_H

/* The MMC commands that identify the disc in a drive, each as in MMC-6. READ DVD STRUCTURE and READ
 * FORMAT CAPACITY are called READ DISC STRUCTURE and READ FORMAT CAPACITIES there.
 *
 * For every entry:
 *
 *   pDevPath  for the log lines
 *   fd        the drive (scsi.h)
 *   pInfo     the disc's descriptor. discClass, mediaKind and recordMode come from
 *             Dev_GetConfiguration and decide how the other replies are read.
 *
 * Results are DEV_QUERY_OK and DEV_QUERY_FAILED. A command with a reply of variable length is sent
 * twice, first for the length, and fails when either request fails. A call uses DEV_REPLY_SIZE
 * bytes of stack more than other entries. */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* GET CONFIGURATION: discClass, mediaKind and recordMode from the current profile. A hex dump of
 * the drive's reply is printed.
 *
 * Returns DEV_QUERY_OK for a supported profile. For a known profile that is not supported the three
 * fields are set too. For an unknown profile and after a failed command they are DEV_CLASS_CD,
 * DEV_MEDIA_READ_ONLY and DEV_RECORD_NONE. Without memory they are unchanged. Uses no additional
 * stack. */
int Dev_GetConfiguration(const char *pDevPath, int fd, tDiscInfo *pInfo);

/* READ DISC INFORMATION: discStatus of a CD, DVD-R/RW, DVD+R/RW or BD; sessions of a CD, lastTrack
 * of the others. For another class pInfo is unchanged. */
int Dev_ReadDiscInfo(const char *pDevPath, int fd, tDiscInfo *pInfo);

/* READ TRACK INFORMATION of track lastTrack: freeBlocks and trackSize, which are printed with the
 * track's addresses, and usedKB (device.h): of an incomplete disc, totalKB less the free blocks (0
 * when more than totalKB is free). usedKB of a DVD-ROM, DVD-RAM or DDCD is unchanged. */
int Dev_ReadTrackInfo(const char *pDevPath, int fd, tDiscInfo *pInfo);

/* READ DVD STRUCTURE, physical format: totalKB of a DVD-R/RW or DVD+R/RW, a nominal capacity chosen
 * by layers and diameter. totalKB of other classes is unchanged. */
int Dev_ReadDvdStruct(const char *pDevPath, int fd, tDiscInfo *pInfo);

/* READ FORMAT CAPACITY: totalKB from the formattable capacity descriptors. The list is printed as
 * hexadecimal bytes, with the type of its current descriptor. If several descriptors apply, the
 * last one counts:
 *
 *   full format (00h)  on a BD: twice the blocks of the current capacity. On other discs: blocks
 *                      times block length in bytes, as a 32-bit product that wraps from 4 GiB on,
 *                      divided by 1024.
 *   DVD+RW (26h)       twice the blocks, on a rewritable DVD+
 *   DVD-RW (10h)       twice the blocks, on a rewritable DVD- */
int Dev_ReadFormatCapacity(const char *pDevPath, int fd, tDiscInfo *pInfo);

/* READ BUFFER CAPACITY: logs the size of the drive's buffer, rounded up to whole MiB, when it is
 * more than one MiB. */
int Dev_ReadBufferCapacity(const char *pDevPath, int fd);

#ifdef __cplusplus
}
#endif

#endif
