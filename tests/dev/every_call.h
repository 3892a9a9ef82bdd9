#ifndef TALVEK_TESTS_DEV_EVERY_CALL_H
#define TALVEK_TESTS_DEV_EVERY_CALL_H

// One call of every entry of DEV.h that can block, for tests of what they have in common.

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <functional>

#include "dev/DEV.h"
#include "support/private_world.h"
#include "support/simulated_drive.h"

namespace talvek::test {

// A call of an entry with the descriptor of the drive.
struct Call {
    const char *name;
    void (*make)(int fd);
    bool hasReplyOnStack = false;  // needs DEV_REPLY_SIZE bytes of stack more
};

constexpr const char *kNode = "/dev/sr0";

inline tDiscInfo WritableDvd() {
    tDiscInfo info = {};
    info.discClass = DEV_CLASS_DVD_PLUS;
    info.mediaKind = DEV_MEDIA_WRITE_ONCE;
    return info;
}

inline tDevInfo Drive() {
    tDevInfo dev = {};
    strcpy(dev.devPath, kNode);
    strcpy(dev.sgPath, "/dev/sg0");
    dev.isOptical = 1;
    return dev;
}

template <int (*pQuery)(const char *, int, tDiscInfo *)>
void Query(int fd) {
    tDiscInfo info = WritableDvd();
    pQuery(kNode, fd, &info);
}

template <int (*pQuery)(tDevInfo *)>
void QueryRecord(int /*fd*/) {
    tDevInfo dev = Drive();
    pQuery(&dev);
}

template <int (*pEnumerate)(tDevInfo *)>
void Enumerate(int /*fd*/) {
    static tDevInfo devs[DEV_MAX_DEVICES];  // not on the stack that is measured
    memset(devs, 0, sizeof devs);
    pEnumerate(devs);
}

inline char g_text[DEV_MOUNT_TEXT_SIZE];

#define CALL(entry, ...) \
    { #entry, __VA_ARGS__ }

// Every entry that can block.
inline constexpr Call kCalls[] = {
    CALL(Dev_BuildSgMap,
         [](int) {
             tSgMapEntry map[DEV_MAX_DEVICES];
             Dev_BuildSgMap(map);
         }),
    CALL(Dev_CheckPartition, [](int) { Dev_CheckPartition("sda1"); }),
    CALL(Dev_ConvertMajorMinor, [](int) { Dev_ConvertMajorMinor(8, 0, g_text, sizeof g_text); }),
    CALL(Dev_ExecMMC,
         [](int fd) {
             uint8_t cdb[6] = {};
             tMmcCmd cmd = {};
             cmd.hdr.cmdp = cdb;
             cmd.hdr.cmd_len = sizeof cdb;
             cmd.hdr.dxfer_direction = SG_DXFER_NONE;
             Dev_ExecMMC(&cmd, fd, DEV_MMC_VERBOSE);
         }),
    CALL(Dev_FsCheckFlag, [](int) { Dev_FsCheckFlag("xfs", DEV_FS_IS_MARKED); }),
    CALL(Dev_Get, Enumerate<Dev_Get>),
    CALL(Dev_GetBDReInfo, QueryRecord<Dev_GetBDReInfo>),
    CALL(Dev_GetCdInfo, Query<Dev_GetCdInfo>, true),
    CALL(Dev_GetConfiguration, Query<Dev_GetConfiguration>),
    CALL(Dev_GetDevIdentify, [](int) { Dev_GetDevIdentify("hda", nullptr, nullptr, g_text); }),
    CALL(Dev_GetDevViaMount, [](int) { Dev_GetDevViaMount(g_text, "/"); }),
    CALL(Dev_GetDiscInfo, QueryRecord<Dev_GetDiscInfo>, true),
    CALL(Dev_GetDvdMinusRwInfo, QueryRecord<Dev_GetDvdMinusRwInfo>),
    CALL(Dev_GetDvdPlusRwInfo, QueryRecord<Dev_GetDvdPlusRwInfo>),
    CALL(Dev_GetEntryViaMtab,
         [](int) {
             tMountEntry entry;
             Dev_GetEntryViaMtab("/", &entry);
         }),
    CALL(Dev_GetFsTool, [](int) { Dev_GetFsTool("xfs", DEV_FS_CAP_MAKE); }),
    CALL(Dev_GetFsToolByIndex, [](int) { Dev_GetFsToolByIndex(DEV_FS_XFS, DEV_FS_CAP_MAKE); }),
    CALL(Dev_GetHDStat,
         [](int) {
             tDevInfo dev = {};
             strcpy(dev.devPath, "/dev/sda");
             Dev_GetHDStat(&dev, DEV_FS_DETECT);
         }),
    CALL(Dev_GetIDViaMount, [](int) { Dev_GetIDViaMount("/", nullptr, nullptr, g_text); }),
    CALL(Dev_GetMPT, [](int) { Dev_GetMPT("/dev/sda", g_text); }),
    CALL(Dev_GetSmartValue,
         [](int) {
             tSmartAttr temperature = {DEV_SMART_TEMPERATURE, 0};
             Dev_GetSmartValue("hda", &temperature);
         }),
    CALL(Dev_GetUSBFlashDevice, Enumerate<Dev_GetUSBFlashDevice>),
    CALL(Dev_InitFsArray, [](int) { Dev_InitFsArray(); }),
    CALL(Dev_Inquiry, [](int fd) { Dev_Inquiry(kNode, fd, nullptr); }),
    CALL(Dev_Mount, [](int) { Dev_Mount("/dev/sda1", "/none", DEV_FS_DETECT); }),
    CALL(Dev_PrintTestMenu,
         [](int) {
             const tDevTestMenu menu = {};
             Dev_PrintTestMenu(&menu);
         }),
    CALL(
        Dev_ReadBufferCapacity, [](int fd) { Dev_ReadBufferCapacity(kNode, fd); }, true),
    CALL(Dev_ReadCdATIP, Query<Dev_ReadCdATIP>, true),
    CALL(Dev_ReadCdToc, Query<Dev_ReadCdToc>, true),
    CALL(Dev_ReadDiscInfo, Query<Dev_ReadDiscInfo>, true),
    CALL(Dev_ReadDvdRToc, Query<Dev_ReadDvdRToc>, true),
    CALL(Dev_ReadDvdStruct, Query<Dev_ReadDvdStruct>, true),
    CALL(Dev_ReadFormatCapacity, Query<Dev_ReadFormatCapacity>, true),
    CALL(Dev_ReadTrackInfo, Query<Dev_ReadTrackInfo>, true),
    CALL(Dev_RescanScsiBus, [](int) { Dev_RescanScsiBus(); }),
    CALL(
        Dev_RunTestMenu,
        [](int) {
            tDevTestMenu menu = {"/dev/sg0", "/dev/sr0", "/dev/sr0", 8, 0};
            char input[] = "5\n10\n15\n17\n";
            FILE *in = fmemopen(input, sizeof input - 1, "r");
            Dev_RunTestMenu(&menu, in);
            fclose(in);
        },
        true),
    CALL(Dev_SdToSg, [](int) { Dev_SdToSg(kNode, g_text, sizeof g_text); }),
    CALL(Dev_SgToSd, [](int) { Dev_SgToSd("/dev/sg0", g_text, sizeof g_text); }),
    CALL(Dev_TestUnitReady, [](int fd) { Dev_TestUnitReady(kNode, fd); }),
    CALL(Dev_nGetMPT, [](int) { Dev_nGetMPT("/dev/sda", g_text, 8); }),
    CALL(Dev_uMount, [](int) { Dev_uMount("/none"); }),
    CALL(Dev_uMount_Force, [](int) { Dev_uMount_Force("/none"); }),
};

// Runs `body` in a private world with a disk and, one after the other, with three discs in a drive.
inline void WithDiscs(const std::function<void(const char *fixture, int fd)> &body) {
    RunInPrivateWorld(
        kMounts,
        [&body] {
            MountTmpfs("/var");
            ReplaceDir("/dev");  // the enumeration makes nodes
            ReplaceDir("/sys");
            WriteFile("/sys/class/scsi_host/host0/scan", "");
            SimulatedDrive disk{{"/dev/sda", "/dev/sg1"}};
            disk.host = 1;
            for (const char *fixture : {"cd_r_open.hex", "dvd_plus_rw.hex", "no_disc.hex"}) {
                SimulatedDrive drive{{kNode, "/dev/sg0"}};
                drive.Load("drive.hex");
                drive.Load(fixture);
                const int fd = drive.Open();
                body(fixture, fd);
                close(fd);
            }
        },
        true);
}

}  // namespace talvek::test

#endif
