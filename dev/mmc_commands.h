#ifndef TALVEK_DEV_MMC_COMMANDS_H
#define TALVEK_DEV_MMC_COMMANDS_H

/* The MMC commands that tell what disc is in a drive, each named as in MMC-6.
 *
 * For every entry:
 *
 *   devPath  for the log lines
 *   fd       the drive (scsi.h)
 *   info     the disc's descriptor. discClass, mediaKind and recordMode say what
 * Dev_GetConfiguration found and decide how the other replies are read.
 *
 * Results are 1 for success and 0 for failure, when info keeps what it held. Commands that learn
 * the length of their reply are sent twice; either may fail. */

#include "dev/device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* GET CONFIGURATION: class, kind and record mode by the current profile.
 * What the drive returned is shown as a hex dump.
 * Returns 1 when the unit writes to or reads from such a disc; 0 when it does not, with the class
 * of a known profile filled in all the same, or when the command failed, with class 1 and kind 1
 * filled in. */
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

/* READ FORMAT CAPACITIES: totalKB from the formattable capacity descriptors. */
int Dev_ReadFormatCapacity(const char *devPath, int fd, tDiscInfo *info);

/* READ BUFFER CAPACITY: logs the size of the drive's buffer, in whole MiB, when it is more
 * than one. */
int Dev_ReadBufferCapacity(const char *devPath, int fd);

#ifdef __cplusplus
}
#endif

#endif
