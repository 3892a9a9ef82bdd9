#ifndef TALVEK_DEV_FILE_SYSTEM_H
#define TALVEK_DEV_FILE_SYSTEM_H

/* The file systems that can be mounted and maintained, and which of them this machine supports.
 *
 * A file system is known by its row in a fixed table, which is also the order in which a mount
 * tries them:
 *
 *   0 xfs   1 ext4   2 ext3   3 ext2   4 vfat   5 fat   6 jffs2   7 iso9660   8 smbfs   9 nfs
 *   10 tmpfs
 *
 * What the kernel (/proc/filesystems) and the installed tools support is found out by the first
 * entry that needs to know it, once for the process; Dev_InitFsArray finds it out again. */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DEV_FS_COUNT 11 /* rows of the table */
/* In place of a row this, or any greater number, has the file system found. */
#define DEV_FS_DETECT 11
#define DEV_FS_ISO9660 7
#define DEV_FS_NFS 9

/* Capability bits; a mask has the bit 1 << n for capability n.
 *
 *   MAKE   a tool makes the file system: arg1 = its options
 *   LABEL  a tool handles the label: arg1 reads it, arg2 (a format) sets it
 *   CHECK  a tool repairs: arg1 by itself, arg2 answering yes ("%c": a letter that the caller fills
 *          in)
 *   MARK   the marked file systems xfs, ext4 and ext3; no tool goes with it */
#define DEV_FS_CAP_MAKE 1
#define DEV_FS_CAP_LABEL 2
#define DEV_FS_CAP_CHECK 3
#define DEV_FS_CAP_MARK 4

/* A tool. All texts are constant; an argument that the tool does not have is NULL. */
typedef struct tFsTool {
    uint32_t capBit; /* DEV_FS_CAP_MAKE, _LABEL or _CHECK; 0 in an unused slot */
    const char *path;
    const char *arg1;
    const char *arg2;
} tFsTool;

/* A row of the table. */
typedef struct tFsEntry {
    uint32_t index;
    uint32_t caps;         /* capability mask; 0 = disabled */
    const char *name;      /* type as mount(2) takes it */
    uint32_t mountFlags;   /* of mount(2): 0x400 MS_NOATIME, 0x001 MS_RDONLY */
    const char *mountData; /* options, or NULL */
    tFsTool tools[5];
} tFsEntry;

/* Finds out anew what is supported and logs one line a row. A row that the kernel knows has its
 * initial mask and a bit for each tool whose file its owner may execute; a row that the kernel does
 * not know, or that could not be looked up, has the mask 0. */
void Dev_InitFsArray(void);

/* Asks for the mark of a file system by its name.
 *
 *   mode  0: -1 if it is marked, else 0; 1: 0 if it is marked, else -1; others: 0
 *
 * Returns -1 for a name that is unknown, disabled or NULL whatever the mode. */
int Dev_FsCheckFlag(const char *pName, int mode);

/* The tool of a file system, by its name or by its row.
 *
 *   capBit  1 to 4
 *
 * Returns the slot, which is constant and never released, or NULL: no such file system, capability
 * not there, or no tool goes with it. */
const tFsTool *Dev_GetFsTool(const char *pName, uint32_t capBit);
const tFsTool *Dev_GetFsToolByIndex(uint32_t index, uint32_t capBit);

#ifdef __cplusplus
}
#endif

#endif
