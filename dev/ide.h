#ifndef TALVEK_DEV_IDE_H
#define TALVEK_DEV_IDE_H

/* Identity and health of disks of the kernel's IDE driver. The driver publishes the data of ATA
 * IDENTIFY DEVICE and of SMART READ DATA as hexadecimal text in /proc/ide/<name>/identify and
 * /proc/ide/<name>/smart_values (Linux up to 5.13, drivers/ide/ide-proc.c and ide-disk_proc.c). */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes for the texts of an identity. */
#define DEV_IDE_SERIAL_SIZE 21
#define DEV_IDE_FIRMWARE_SIZE 9
#define DEV_IDE_MODEL_SIZE 41

/* SMART attribute of the drive's temperature. */
#define DEV_SMART_TEMPERATURE 0xC2

/* One SMART attribute. */
typedef struct tSmartAttr {
    uint8_t id;    /* set by the caller */
    uint8_t value; /* its first raw byte */
} tSmartAttr;

/* Reads a disk's serial number, firmware revision and model (ATA IDENTIFY DEVICE, words 10-19,
 * 23-26 and 27-46).
 *
 *   pDevPath  the disk; only the last component is used: "/dev/hda" and "hda" are the same
 *   pSerial   DEV_IDE_SERIAL_SIZE bytes, or NULL
 *   pFwRev    DEV_IDE_FIRMWARE_SIZE bytes, or NULL
 *   pModel    DEV_IDE_MODEL_SIZE bytes, or NULL; one of the three must be given
 *
 * The texts keep their trailing blanks. Returns 0, or -1: no output is given, the file is too
 * short, pDevPath is NULL or there is no such disk (the last two are not logged). */
int Dev_GetDevIdentify(const char *pDevPath, char *pSerial, char *pFwRev, char *pModel);

/* Dev_GetDevIdentify for the disk that is mounted on pMountPoint (as Dev_GetDevViaMount finds it,
 * mount_table.h). For a mounted partition, "/dev/hda1", the disk is read, "hda".
 *
 * Returns 0 or -1. */
int Dev_GetIDViaMount(const char *pMountPoint, char *pSerial, char *pFwRev, char *pModel);

/* Reads one SMART attribute of a disk.
 *
 *   pDevPath  the disk; only the last component is used
 *   pAttr     id: the attribute; 0 finds the first empty entry. value: out
 *
 * Returns 0, or -1 when the disk has no such attribute, the file is too short, or there is no such
 * disk (not logged). */
int Dev_GetSmartValue(const char *pDevPath, tSmartAttr *pAttr);

#ifdef __cplusplus
}
#endif

#endif
