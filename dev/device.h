#ifndef TALVEK_DEV_DEVICE_H
#define TALVEK_DEV_DEVICE_H

/* The records that describe the unit's disks and optical drives. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Where a device sits on its bus. The four words together pair a block or optical node with its
 * SCSI generic node (Linux include/scsi/scsi_ioctl.h: SCSI_IOCTL_GET_BUS_NUMBER and
 * SCSI_IOCTL_GET_IDLUN, whose first word packs id, lun and channel from the low byte up). */
typedef struct tScsiAddr {
    uint32_t host;
    uint32_t channel;
    uint32_t id;
    uint32_t lun;
} tScsiAddr;

/* tDiscInfo.discClass */
enum {
    DEV_CLASS_CD = 1,
    DEV_CLASS_DVD_ROM = 2,
    DEV_CLASS_DVD_MINUS = 3, /* DVD-R, DVD-RW */
    DEV_CLASS_DVD_PLUS = 4,  /* DVD+R, DVD+RW */
    DEV_CLASS_DVD_RAM = 5,
    DEV_CLASS_DDCD = 6,
    DEV_CLASS_BD = 7
};

/* tDiscInfo.mediaKind */
enum {
    DEV_MEDIA_READ_ONLY = 1,
    DEV_MEDIA_WRITE_ONCE = 2,
    DEV_MEDIA_REWRITABLE = 3,
    DEV_MEDIA_RAM = 4
};

/* tDiscInfo.recordMode */
enum {
    DEV_RECORD_NONE = 0,
    DEV_RECORD_SEQUENTIAL = 1,
    DEV_RECORD_RESTRICTED_OVERWRITE = 2,
    DEV_RECORD_DUAL_LAYER = 5,
    DEV_RECORD_DUAL_LAYER_JUMP = 6
};

/* tDiscInfo.discStatus */
enum {
    DEV_DISC_EMPTY = 0,
    DEV_DISC_INCOMPLETE = 1, /* appendable */
    DEV_DISC_FINALIZED = 2,
    DEV_DISC_RANDOM_ACCESS = 3
};

/* The medium in an optical drive, as Dev_GetDiscInfo finds it. */
typedef struct tDiscInfo {
    uint32_t discClass;      /* DEV_CLASS_... */
    uint32_t mediaKind;      /* DEV_MEDIA_... */
    uint32_t recordMode;     /* DEV_RECORD_... */
    uint32_t cdSubType;      /* disc sub-type of a CD's ATIP, 0 to 7 */
    uint32_t discStatus;     /* DEV_DISC_... */
    uint32_t lastTrackStart; /* logical block address of a CD's last track */
    uint32_t nextLeadIn;     /* position of the next session's lead-in in 2 KB sectors (CD) */
    uint32_t lastTrack;      /* last track in the last session */
    uint32_t sessions;       /* number of sessions (CD) */
    uint32_t freeBlocks;     /* of the last track, in 2 KB blocks */
    uint32_t trackSize;      /* of the last track, in 2 KB blocks */
    uint32_t reserved;       /* 0 */
    uint64_t totalKB;        /* total capacity */
    uint64_t usedKB;         /* used capacity */
} tDiscInfo;

/* Size and file system of a disk, as Dev_GetHDStat measures them. */
typedef struct tDiskStat {
    uint32_t fsType;      /* f_type of statfs */
    uint32_t blockSize;   /* bytes */
    uint32_t freeBlocks;  /* of blockSize bytes */
    uint32_t totalBlocks; /* of blockSize bytes */
    uint64_t totalBytes;  /* blockSize * totalBlocks */
    uint64_t freeBytes;   /* blockSize * freeBlocks */
    uint64_t deviceBytes; /* of the whole block device, whatever is on it */
} tDiskStat;

/* One device. The caller zeroes the record before it is filled. */
typedef struct tDevInfo {
    char model[28];       /* vendor and product, at most 24 characters and the NUL */
    tScsiAddr scsiAddr;   /* the key that pairs the nodes */
    char devPath[12];     /* block, optical or tape node: "/dev/sdb", "/dev/sr0", "/dev/nosst4" */
    char sgPath[12];      /* paired generic node: "/dev/sg1" */
    char mountPoint[120]; /* where the device is mounted; empty if it is not */
    uint8_t ready;        /* 1 if the unit said that it is ready */
    uint8_t isOptical;    /* 1 optical drive, 0 disk: says which member of u holds */
    uint8_t busType;      /* 0 ATA, 1 USB, 2 IEEE-1394, 3 eSATA */
    uint8_t reserved;     /* 0 */
    union {
        tDiscInfo disc; /* isOptical 1 */
        tDiskStat disk; /* isOptical 0 */
    } u;
} tDevInfo;

/* One SCSI generic node with its key. */
typedef struct tSgMapEntry {
    char sgPath[12];    /* "/dev/sg0" or "/dev/sga" */
    uint8_t ready;      /* 1 if the unit said that it is ready */
    tScsiAddr scsiAddr; /* sixteen 0xFF bytes in a row without a device */
} tSgMapEntry;

/* Devices of one enumeration, and generic nodes that are looked at. */
#define DEV_MAX_DEVICES 32

/* The records are the same on 32-bit ARM and on 64-bit hosts. */
static_assert(sizeof(tScsiAddr) == 16, "tScsiAddr");
static_assert(sizeof(tDiscInfo) == 64, "tDiscInfo");
static_assert(offsetof(tDiscInfo, totalKB) == 48, "tDiscInfo");
static_assert(offsetof(tDiscInfo, usedKB) == 56, "tDiscInfo");
static_assert(sizeof(tDiskStat) == 40, "tDiskStat");
static_assert(offsetof(tDiskStat, totalBytes) == 16, "tDiskStat");
static_assert(sizeof(tDevInfo) == 256, "tDevInfo");
static_assert(offsetof(tDevInfo, scsiAddr) == 28, "tDevInfo");
static_assert(offsetof(tDevInfo, devPath) == 44, "tDevInfo");
static_assert(offsetof(tDevInfo, sgPath) == 56, "tDevInfo");
static_assert(offsetof(tDevInfo, mountPoint) == 68, "tDevInfo");
static_assert(offsetof(tDevInfo, ready) == 188, "tDevInfo");
static_assert(offsetof(tDevInfo, u) == 192, "tDevInfo");
static_assert(sizeof(tSgMapEntry) == 32, "tSgMapEntry");

#ifdef __cplusplus
}
#endif

#endif
