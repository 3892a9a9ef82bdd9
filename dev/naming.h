#ifndef TALVEK_DEV_NAMING_H
#define TALVEK_DEV_NAMING_H

/* Names of device nodes: from one kind of node to the other, and from device numbers. */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes for any name that these entries write, the NUL counted. A name that does not fit the
 * caller's buffer is cut, with a warning. */
#define DEV_NODE_NAME_SIZE 256

/* Writes the name of a SCSI generic node.
 *
 *   dst      12 bytes; a longer name is cut to 11 characters
 *   k        number of the node
 *   numeric  not 0: "/dev/sg0" for k = 0; 0: "/dev/sga", and "/dev/sgxx" from k = 26 on, which is
 *            logged */
void Dev_MakeDevName(char *dst, unsigned k, int numeric);

/* Finds the block, optical or tape node of a SCSI generic node: the first of /dev/sda to sdz, sr0
 * to sr11, nst0 to nst5 and nosst0 to nosst4 that has the same place on the same bus.
 *
 *   pSgPath  the generic node, "/dev/sg1"
 *   pSdPath  size bytes for the name and its NUL
 *
 * Returns 0, or -1 with pSdPath as it was: a node cannot be opened or asked, or none pairs. */
int Dev_SgToSd(const char *pSgPath, char *pSdPath, size_t size);

/* Finds the SCSI generic node of a block, optical or tape node, among /dev/sg0 to sg31, or /dev/sga
 * to sgz where there is no /dev/sg0. Arguments and result as for Dev_SgToSd. */
int Dev_SdToSg(const char *pSdPath, char *pSgPath, size_t size);

/* The name of a block device by its numbers (Linux Documentation/admin-guide/devices.txt): SCSI
 * disks and their partitions (majors 8, 65 to 71, 128 to 135; "/dev/sda1"), SCSI CD-ROMs (11),
 * loop devices (7), whether they are there or not; any other as the kernel calls it, if it is there
 * (/sys/dev/block).
 *
 *   pName  size bytes for the name and its NUL
 *
 * Returns 0, or -1 with pName as it was and the pair logged as invalid. */
int Dev_ConvertMajorMinor(int major, int minor, char *pName, size_t size);

#ifdef __cplusplus
}
#endif

#endif
