#ifndef TALVEK_DEV_DEVICE_H
#define TALVEK_DEV_DEVICE_H

/* The records that describe the unit's disks and optical drives. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Results of the entries that query a drive or a disc (scsi.h, mmc_commands.h, toc.h,
 * optical_disc.h, optical_capacity.h). */
enum { DEV_QUERY_FAILED = 0, DEV_QUERY_OK = 1 };

/* Address of a device on its bus. A block or optical node and its SCSI generic node are a pair:
 * their addresses are equal in all four words. */
typedef struct tScsiAddr {
    uint32_t host;    /* SCSI_IOCTL_GET_BUS_NUMBER (Linux include/scsi/scsi_ioctl.h) */
    uint32_t channel; /* SCSI_IOCTL_GET_IDLUN, first word: bits 16 to 23 */
    uint32_t id;      /* bits 0 to 7 */
    uint32_t lun;     /* bits 8 to 15 */
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

/* tDiscInfo.cdSubType: write speeds of a CD-R or CD-RW. 3 to 7 are not defined. */
enum { DEV_CD_NORMAL_SPEED = 0, DEV_CD_HIGH_SPEED = 1, DEV_CD_ULTRA_SPEED = 2 };

/* tDiscInfo.discStatus */
enum {
    DEV_DISC_EMPTY = 0,
    DEV_DISC_INCOMPLETE = 1, /* appendable */
    DEV_DISC_FINALIZED = 2,
    DEV_DISC_RANDOM_ACCESS = 3
};

/* The disc in an optical drive, as Dev_GetDiscInfo finds it.
 *
 * usedKB is totalKB of a finalized disc and 0 of an empty or random-access one. Of an incomplete
 * disc it is what the entry that reads the disc says. Of a finalized DVD+RW, and of a DVD-RW in
 * restricted overwrite that is incomplete or finalized, Dev_GetDiscInfo measures the file system
 * instead (optical_capacity.h). */
typedef struct tDiscInfo {
    uint32_t discClass;      /* DEV_CLASS_... */
    uint32_t mediaKind;      /* DEV_MEDIA_... */
    uint32_t recordMode;     /* DEV_RECORD_... */
    uint32_t cdSubType;      /* DEV_CD_..., disc sub-type of the ATIP */
    uint32_t discStatus;     /* DEV_DISC_... */
    uint32_t lastTrackStart; /* logical block address of a CD's last track */
    uint32_t nextLeadIn;     /* start of the next session's lead-in in 2 KB sectors (CD) */
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
    uint32_t fsType;      /* f_type of statfs(2): DEV_FS_TYPE_... (file_system.h) */
    uint32_t blockSize;   /* bytes */
    uint32_t freeBlocks;  /* of blockSize bytes */
    uint32_t totalBlocks; /* of blockSize bytes */
    uint64_t totalBytes;  /* blockSize * totalBlocks */
    uint64_t freeBytes;   /* blockSize * freeBlocks */
    uint64_t deviceBytes; /* size of the whole block device */
} tDiskStat;

/* tDevInfo.busType. The enumeration reports eSATA as ATA. */
enum { DEV_BUS_ATA = 0, DEV_BUS_USB = 1, DEV_BUS_IEEE1394 = 2, DEV_BUS_ESATA = 3 };

#define DEV_MAX_DEVICES 32      /* records of one enumeration, and rows of the map of nodes */
#define DEV_INFO_MODEL_SIZE 28  /* bytes of tDevInfo.model */
#define DEV_INFO_PATH_SIZE 12   /* bytes of devPath and sgPath */
#define DEV_INFO_MOUNT_SIZE 120 /* bytes of tDevInfo.mountPoint */

/* One device. The caller zeroes the record before the first call that fills it. */
typedef struct tDevInfo {
    char model[DEV_INFO_MODEL_SIZE]; /* vendor and product, as Dev_Inquiry gives them */
    tScsiAddr scsiAddr;
    char devPath[DEV_INFO_PATH_SIZE];     /* "/dev/sdb", "/dev/sr0", "/dev/nosst4" */
    char sgPath[DEV_INFO_PATH_SIZE];      /* paired generic node: "/dev/sg1" */
    char mountPoint[DEV_INFO_MOUNT_SIZE]; /* empty when the device is not mounted */
    uint8_t ready;                        /* 1: Dev_TestUnitReady (scsi.h) succeeded */
    uint8_t isOptical; /* 1: optical drive or tape, u.disc is valid; 0: disk, u.disk is valid */
    uint8_t busType;   /* DEV_BUS_... */
    uint8_t reserved;  /* 0 */
    union {
        tDiscInfo disc;
        tDiskStat disk;
    } u;
} tDevInfo;

/* One SCSI generic node. */
typedef struct tSgMapEntry {
    char sgPath[DEV_INFO_PATH_SIZE]; /* "/dev/sg0" or "/dev/sga" */
    uint8_t ready;                   /* 1: TEST UNIT READY succeeded */
    tScsiAddr scsiAddr;              /* words that were not read are 0xFFFFFFFF; no device has
                                        these */
} tSgMapEntry;

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
