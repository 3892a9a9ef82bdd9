#ifndef TALVEK_DEV_NAMING_H
#define TALVEK_DEV_NAMING_H

/* Names of device nodes: from one kind of node to the other, and from device numbers. */

#include <stddef.h>

#include "device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes for any name that Dev_SgToSd, Dev_SdToSg and Dev_ConvertMajorMinor write. */
#define DEV_NODE_NAME_SIZE 256

/* Argument `numeric` of Dev_MakeDevName. */
enum {
    DEV_SG_LETTERS = 0, /* "/dev/sga" to "/dev/sgz" for 0 to 25, "/dev/sgxx" from 26 on */
    DEV_SG_NUMBERS = 1, /* "/dev/sg0"; any value but 0 has this meaning */
};

/* Writes the name of a SCSI generic node.
 *
 *   pDst     DEV_INFO_PATH_SIZE bytes; a longer name is truncated without a warning. NULL writes
 *            nothing.
 *   k        number of the node
 *   numeric  DEV_SG_NUMBERS or DEV_SG_LETTERS; a k without a letter is logged */
void Dev_MakeDevName(char *pDst, unsigned k, int numeric);

/* Finds the block, optical or tape node of a SCSI generic node: the first of /dev/sda to sdz, sr0
 * to sr11, nst0 to nst5 and nosst0 to nosst4 that has the same SCSI address.
 *
 *   pSgPath  the generic node, "/dev/sg1"
 *   pSdPath  `size` bytes for the name; DEV_NODE_NAME_SIZE is always enough
 *
 * Returns 0, or -1: pSgPath cannot be opened or queried, no node has its address, or size is 0. */
int Dev_SgToSd(const char *pSgPath, char *pSdPath, size_t size);

/* Finds the SCSI generic node of a block, optical or tape node, among /dev/sg0 to sg31, or /dev/sga
 * to sgz where there is no /dev/sg0. Arguments and results as for Dev_SgToSd. */
int Dev_SdToSg(const char *pSdPath, char *pSgPath, size_t size);

/* The name of a block device by its numbers (Linux Documentation/admin-guide/devices.txt). SCSI
 * disks and their partitions (majors 8, 65 to 71, 128 to 135: "/dev/sda1"), SCSI CD-ROMs (11) and
 * loop devices (7) need not exist. Any other device must exist and gets the kernel's own name
 * (/sys/dev/block).
 *
 *   pName  `size` bytes for the name; DEV_NODE_NAME_SIZE is always enough
 *
 * Returns 0, or -1 with the pair logged as invalid (also for a NULL pName or a size of 0). */
int Dev_ConvertMajorMinor(int major, int minor, char *pName, size_t size);

#ifdef __cplusplus
}
#endif

#endif
