/* Shows size, file system and identity of a disk or a partition.
 *
 *   disk_facts /dev/sda1
 *   disk_facts -m /dev/sdb    mounts a disk that is not mounted below /var while it is measured
 *
 * Exits with 1 when the file system cannot be measured.
 */

#include <stdio.h>
#include <string.h>
#include <talvek/dev/DEV.h>
#include <unistd.h>

#include "facts.h"

static const char *FileSystem(uint32_t type) {
    switch (type) {
        case DEV_FS_TYPE_XFS:
            return "xfs";
        case DEV_FS_TYPE_EXT:
            return "ext2, ext3 or ext4";
        case DEV_FS_TYPE_FAT:
            return "vfat";
        case DEV_FS_TYPE_JFFS2:
            return "jffs2";
        case DEV_FS_TYPE_ISO9660:
            return "iso9660";
        default:
            return "another one";
    }
}

static int Measure(tDevInfo *pDisk, int mayMount) {
    char mountPoint[DEV_MOUNT_TEXT_SIZE];
    if (!mayMount && Dev_GetMPT(pDisk->devPath, mountPoint) != 0) {
        fprintf(stderr, "%s is not mounted; -m mounts it to measure it\n", pDisk->devPath);
        return 1;
    }
    if (Dev_GetHDStat(pDisk, DEV_FS_DETECT) == DEV_HD_STAT_FAILED) {
        fprintf(stderr, "%s cannot be measured\n", pDisk->devPath);
        return 1;
    }
    const tDiskStat *pStat = &pDisk->u.disk;
    FactsNumber("device_size", (int64_t)pStat->deviceBytes, "bytes");
    /* Detection ends with tmpfs, which accepts every device: the disk itself has nothing then. */
    if (pStat->fsType == DEV_FS_TYPE_TMPFS) {
        FactsText("file_system", NULL);
        return 0;
    }
    FactsText("file_system", FileSystem(pStat->fsType));
    FactsText("mount_point", pDisk->mountPoint[0] != '\0' ? pDisk->mountPoint : NULL);
    FactsNumber("total", (int64_t)pStat->totalBytes, "bytes");
    FactsNumber("free", (int64_t)pStat->freeBytes, "bytes");
    return 0;
}

int main(int argc, char *argv[]) {
    int mayMount = 0;
    while (FactsOption(argc, argv, "m", "[-m] <disk or partition>") != -1) {
        mayMount = 1;
    }
    if (argc != optind + 1 || strlen(argv[optind]) >= DEV_INFO_PATH_SIZE) {
        FactsWrongUse();
    }

    tDevInfo disk;
    memset(&disk, 0, sizeof disk);
    snprintf(disk.devPath, sizeof disk.devPath, "%s", argv[optind]);
    FactsText("device", disk.devPath);
    const int status = Measure(&disk, mayMount);

    char serial[DEV_IDE_SERIAL_SIZE], firmware[DEV_IDE_FIRMWARE_SIZE], model[DEV_IDE_MODEL_SIZE];
    if (Dev_GetDevIdentify(disk.devPath, serial, firmware, model) == 0) {
        FactsText("model", model);
        FactsText("serial", serial);
        FactsText("firmware", firmware);
    }
    tSmartAttr temperature = {.id = DEV_SMART_TEMPERATURE, .value = 0};
    if (Dev_GetSmartValue(disk.devPath, &temperature) == 0) {
        FactsNumber("temperature", temperature.value, "degrees Celsius");
    }
    return FactsEnd(status);
}
