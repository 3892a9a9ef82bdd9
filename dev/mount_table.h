#ifndef TALVEK_DEV_MOUNT_TABLE_H
#define TALVEK_DEV_MOUNT_TABLE_H

/* What is mounted where (/proc/mounts) and which partitions there are (/proc/partitions).
 *
 * The kernel writes blanks, tabs, newlines and backslashes of a name as octal escapes ("\040"; see
 * proc(5), mounts). The entries here take and give the names themselves, so that a path found can
 * be used as it is. Each name found is cut, with a warning, to what its buffer holds. */

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes of a buffer for a device or a mount point, the NUL counted. */
#define DEV_MOUNT_TEXT_SIZE 256

/* One mount. */
typedef struct tMountEntry {
    char device[DEV_MOUNT_TEXT_SIZE];     /* "/dev/sda1", or "host:/path" of an NFS mount */
    char mountPoint[DEV_MOUNT_TEXT_SIZE]; /* directory */
    char type[64];                        /* "ext4", "nfs" */
    char options[1024];                   /* "rw,relatime,..." */
} tMountEntry;

/* Finds where a device is mounted: the first mount that matches.
 *
 *   pDev         the device
 *   pMountPoint  DEV_MOUNT_TEXT_SIZE bytes for the mount point and its NUL
 *   n            0: the mounted device begins with pDev ("/dev/sda" finds "/dev/sda1")
 *                else: its first n characters are those of pDev, and it has no more than n
 *
 * Returns 0, or -1 with pMountPoint as it was. */
int Dev_nGetMPT(const char *pDev, char *pMountPoint, unsigned n);

/* Dev_nGetMPT with n = 0. */
int Dev_GetMPT(const char *pDev, char *pMountPoint);

/* Finds what is mounted on a directory: of several mounts there, the last, which is the one on top.
 *
 *   pDev         DEV_MOUNT_TEXT_SIZE bytes for the device and its NUL
 *   pMountPoint  the directory, written as it was when it was mounted
 *
 * Returns 0, or -1 with pDev as it was. */
int Dev_GetDevViaMount(char *pDev, const char *pMountPoint);

/* The whole entry of the mount on the directory pKey: of several mounts there, the last. Slashes at
 * the end of pKey do not count. Returns 0, or -1 with *pEntry as it was. */
int Dev_GetEntryViaMtab(const char *pKey, tMountEntry *pEntry);

/* Whether the kernel lists a partition or a disk. Only the last component of pName counts:
 * "/dev/sda1" and "sda1" ask for the same. Returns 0 when it is listed, else -1. */
int Dev_CheckPartition(const char *pName);

#ifdef __cplusplus
}
#endif

#endif
