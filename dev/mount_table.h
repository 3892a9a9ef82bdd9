#ifndef TALVEK_DEV_MOUNT_TABLE_H
#define TALVEK_DEV_MOUNT_TABLE_H

/* What is mounted where (/proc/mounts) and which partitions exist (/proc/partitions).
 *
 * The kernel writes blanks, tabs, newlines and backslashes of a name as octal escapes ("\040"; see
 * proc(5), mounts). The entries here accept and return the names themselves, so that a path found
 * can be opened. */

#ifdef __cplusplus
extern "C" {
#endif

#define DEV_MOUNT_TEXT_SIZE 256     /* bytes of a buffer for a device or a mount point */
#define DEV_MOUNT_TYPE_SIZE 64      /* bytes of tMountEntry.type */
#define DEV_MOUNT_OPTIONS_SIZE 1024 /* bytes of tMountEntry.options */

/* One mount. */
typedef struct tMountEntry {
    char device[DEV_MOUNT_TEXT_SIZE];     /* "/dev/sda1", or "host:/path" of an NFS mount */
    char mountPoint[DEV_MOUNT_TEXT_SIZE]; /* directory */
    char type[DEV_MOUNT_TYPE_SIZE];       /* "ext4", "nfs" */
    char options[DEV_MOUNT_OPTIONS_SIZE]; /* "rw,relatime,..." */
} tMountEntry;

/* Argument n of Dev_nGetMPT: the mounted device begins with pDev. */
#define DEV_MPT_PREFIX 0

/* Finds where a device is mounted: the first mount that matches.
 *
 *   pDev         the device
 *   pMountPoint  DEV_MOUNT_TEXT_SIZE bytes for the mount point
 *   n            DEV_MPT_PREFIX: the mounted device begins with pDev ("/dev/sda" finds
 *                "/dev/sda1"). Above 0: the mounted device has at most n characters and equals the
 *                first n characters of pDev.
 *
 * Returns 0, or -1 when no mount matches. */
int Dev_nGetMPT(const char *pDev, char *pMountPoint, unsigned n);

/* Dev_nGetMPT with DEV_MPT_PREFIX. */
int Dev_GetMPT(const char *pDev, char *pMountPoint);

/* Finds the device that is mounted on a directory. If several are mounted there, it is the last
 * one, which hides the others.
 *
 *   pDev         DEV_MOUNT_TEXT_SIZE bytes for the device
 *   pMountPoint  the directory, spelled as in the mount call
 *
 * Returns 0, or -1 when nothing is mounted there. */
int Dev_GetDevViaMount(char *pDev, const char *pMountPoint);

/* Finds the entry of the mount on the directory pKey; of several mounts there, the last one.
 * Slashes at the end of pKey are ignored. Returns 0, or -1 when nothing is mounted there. */
int Dev_GetEntryViaMtab(const char *pKey, tMountEntry *pEntry);

/* Whether the kernel lists a partition or a disk. Only the last component of pName is used:
 * "/dev/sda1" and "sda1" are the same. Returns 0 when it is listed, else -1; NULL is not logged. */
int Dev_CheckPartition(const char *pName);

#ifdef __cplusplus
}
#endif

#endif
