#ifndef TALVEK_DEV_FILE_SYSTEM_H
#define TALVEK_DEV_FILE_SYSTEM_H

/* The file systems that can be mounted and maintained, and which of them this machine supports.
 *
 * A file system is a row of a fixed table. A mount that detects the file system tries the rows in
 * their order. What the kernel (/proc/filesystems) and the installed tools support is determined
 * once per process, by the first entry that needs it. Dev_InitFsArray determines it again. */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Rows of the table. */
#define DEV_FS_XFS 0
#define DEV_FS_EXT4 1
#define DEV_FS_EXT3 2
#define DEV_FS_EXT2 3
#define DEV_FS_VFAT 4
#define DEV_FS_FAT 5
#define DEV_FS_JFFS2 6
#define DEV_FS_ISO9660 7
#define DEV_FS_SMBFS 8
#define DEV_FS_NFS 9
#define DEV_FS_TMPFS 10
#define DEV_FS_COUNT 11
/* In place of a row: detect the file system. Every greater number has the same meaning. */
#define DEV_FS_DETECT 11

/* What statfs(2) reports as f_type for these file systems (linux/magic.h). */
enum {
    DEV_FS_TYPE_XFS = 0x58465342,
    DEV_FS_TYPE_EXT = 0xEF53, /* ext2, ext3 and ext4 */
    DEV_FS_TYPE_FAT = 0x4D44, /* vfat */
    DEV_FS_TYPE_JFFS2 = 0x72B6,
    DEV_FS_TYPE_ISO9660 = 0x9660,
    DEV_FS_TYPE_SMBFS = 0x517B,
    DEV_FS_TYPE_NFS = 0x6969,
    DEV_FS_TYPE_TMPFS = 0x01021994,
};

/* Capabilities. A mask has the bit 1 << n for capability n.
 *
 *   MAKE   a tool makes the file system: arg1 = its options
 *   LABEL  a tool handles the label: arg1 reads it, arg2 (a format) sets it
 *   CHECK  a tool checks and repairs: arg1 = options for an automatic repair, arg2 = options that
 *          force every repair (formats: the caller fills in "%c")
 *   MARK   set for xfs, ext4 and ext3; there is no tool */
#define DEV_FS_CAP_MAKE 1
#define DEV_FS_CAP_LABEL 2
#define DEV_FS_CAP_CHECK 3
#define DEV_FS_CAP_MARK 4

#define DEV_FS_TOOL_SLOTS 5 /* tools of a row, used or not */

/* A tool. All texts are constant; an argument that the tool does not have is NULL. */
typedef struct tFsTool {
    uint32_t capBit; /* DEV_FS_CAP_MAKE, _LABEL or _CHECK; 0 in an unused slot */
    const char *path;
    const char *arg1;
    const char *arg2;
} tFsTool;

/* A row of the table. */
typedef struct tFsEntry {
    uint32_t index;        /* DEV_FS_XFS to DEV_FS_TMPFS */
    uint32_t caps;         /* capability mask; 0 = disabled */
    const char *name;      /* type for mount(2) */
    uint32_t mountFlags;   /* for mount(2): 0x400 MS_NOATIME, 0x001 MS_RDONLY */
    const char *mountData; /* options for mount(2), or NULL */
    tFsTool tools[DEV_FS_TOOL_SLOTS];
} tFsEntry;

/* Determines again what is supported and logs one line a row. The mask of a row that the kernel
 * knows is its initial mask plus the bit of each tool that its owner may execute. The mask is 0 for
 * a row that the kernel does not know, and for all rows when the look-up fails. */
void Dev_InitFsArray(void);

/* Argument `mode` of Dev_FsCheckFlag. */
enum {
    DEV_FS_IS_UNMARKED = 0, /* 0 if the file system is not marked, -1 if it is */
    DEV_FS_IS_MARKED = 1,   /* 0 if it is marked, -1 if it is not */
};

/* Whether a file system has the mark DEV_FS_CAP_MARK.
 *
 *   pName  type for mount(2), as in the table
 *   mode   DEV_FS_IS_UNMARKED or DEV_FS_IS_MARKED; any other mode gives 0
 *
 * Returns -1, whatever the mode, for an unknown or disabled name and for NULL (not logged). */
int Dev_FsCheckFlag(const char *pName, int mode);

/* The tool of a file system, by its name or by its row.
 *
 *   capBit  DEV_FS_CAP_MAKE to DEV_FS_CAP_MARK
 *
 * Returns a constant slot of the table. Returns NULL, which is not logged, for an unknown file
 * system, a capability that is not supported, and a capability without a tool. */
const tFsTool *Dev_GetFsTool(const char *pName, uint32_t capBit);
const tFsTool *Dev_GetFsToolByIndex(uint32_t index, uint32_t capBit);

#ifdef __cplusplus
}
#endif

#endif
