#ifndef TALVEK_DEV_MMC_COMMANDS_H
#define TALVEK_DEV_MMC_COMMANDS_H

/* The MMC commands that tell what disc is in a drive, each as in MMC-6. READ DVD STRUCTURE and READ
 * FORMAT CAPACITY are called READ DISC STRUCTURE and READ FORMAT CAPACITIES there.
 *
 * For every entry:
 *
 *   devPath  for the log lines
 *   fd       the drive (scsi.h)
 *   info     the disc's descriptor. discClass, mediaKind and recordMode are set by
 *            Dev_GetConfiguration and decide how the other replies are read.
 *
 * Results are 1 for success and 0 for failure, when info keeps what it held. Commands that learn
 * the length of their reply are sent twice; either may fail. A call takes 64 KiB of stack for the
 * reply. */

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* GET CONFIGURATION: discClass, mediaKind and recordMode by the current profile. The drive's reply
 * is shown as a hex dump.
 *
 * Returns 1 for a supported profile. The result is 0 for a profile that is not, and the three
 * fields are filled in all the same; they are 1, 1 and 0 when the profile is unknown or the command
 * fails, and as before when there is no memory. */
int Dev_GetConfiguration(const char *devPath, int fd, tDiscInfo *info);

/* READ DISC INFORMATION: discStatus for CD, DVD-R/RW, DVD+R/RW and BD; sessions for CD,
 * lastTrack for the others. Other classes are left as they are. */
int Dev_ReadDiscInfo(const char *devPath, int fd, tDiscInfo *info);

/* READ TRACK INFORMATION of lastTrack: freeBlocks and trackSize, and usedKB from discStatus:
 * totalKB less what is free on an incomplete disc (0 when more is free than totalKB), totalKB on a
 * finalized one, otherwise 0. DVD-ROM, DVD-RAM and DDCD keep their usedKB. */
int Dev_ReadTrackInfo(const char *devPath, int fd, tDiscInfo *info);

/* READ DVD STRUCTURE, physical format: totalKB of a DVD-R/RW or DVD+R/RW, one of the nominal
 * capacities by layers and diameter. Other classes keep their totalKB. */
int Dev_ReadDvdStruct(const char *devPath, int fd, tDiscInfo *info);

/* READ FORMAT CAPACITY: totalKB from the formattable capacity descriptors, of which the last that
 * applies counts.
 *
 *   full format (00h)      BD: twice the blocks of the current capacity. Others: blocks times block
 *                          length as a 32-bit product, which wraps from 4 GiB on
 *   DVD+RW (26h), DVD-RW (10h)  twice the blocks, if the disc is a rewritable one of that family */
int Dev_ReadFormatCapacity(const char *devPath, int fd, tDiscInfo *info);

/* READ BUFFER CAPACITY: logs the size of the drive's buffer, in whole MiB, when it is more
 * than one. */
int Dev_ReadBufferCapacity(const char *devPath, int fd);

#ifdef __cplusplus
}
#endif

#endif
