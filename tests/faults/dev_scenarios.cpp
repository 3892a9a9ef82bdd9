// Scenarios of dev/.

#include <grp.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "dev/DEV.h"
#include "dev/ide_fixture.h"
#include "dev/internal/nfs_umount.h"
#include "dev/iso_mount.h"
#include "dev/rpc_peer.h"
#include "faults/harness.h"
#include "support/private_world.h"
#include "support/simulated_drive.h"

namespace talvek::faults {
namespace {

using test::RpcPeer;
using test::SimulatedDrive;
using test::WriteFile;
using test::operator+;

tDevInfo g_devices[DEV_MAX_DEVICES];
char g_text[DEV_MOUNT_TEXT_SIZE];
char g_input[512];
FILE *g_in = nullptr;
SimulatedDrive *g_drive = nullptr;

// A disk and a drive with a disc. They last as long as the process.
void MakeDevices(const char *pDisc) {
    test::ReplaceDir("/dev");
    test::ReplaceDir("/sys");
    WriteFile("/sys/class/scsi_host/host0/scan", "");
    mkdir("/sys/dev", 0755);
    CHECK(mount("/bin/false", "/bin/mount", nullptr, MS_BIND, nullptr) == 0);
    auto *disk = new SimulatedDrive{{"/dev/sda", "/dev/sg0"}};
    disk->host = 1;
    disk->Load("drive.hex");
    g_drive = new SimulatedDrive{{"/dev/sr0", "/dev/sg1"}};
    g_drive->Load("drive.hex");
    g_drive->Load(pDisc);
}

void MakeDisc() {
    MakeDevices("dvd_plus_rw.hex");
}

void MakeCd() {
    MakeDevices("cd_r_open.hex");
}

void MakeDvdR() {
    MakeDevices("dvd_minus_r_open.hex");
}

// A disk that no file system but tmpfs fits, and the tables that name it.
void MakeDisk() {
    test::ReplaceProc();
    WriteFile("/proc/partitions", "major minor  #blocks  name\n\n   8 1 9 sda1\n   9 1 9 md1\n");
    WriteFile("/proc/filesystems", "nodev\ttmpfs\n");
    WriteFile("/proc/mounts", "/dev/hda1 /home ext3 rw 0 0\n");
    mkdir("/tmp/disk", 0755);
    // /bin/mount would ask a server.
    CHECK(mount("/bin/false", "/bin/mount", nullptr, MS_BIND, nullptr) == 0);
}

// More than a block of the table, so that its end cuts a line.
void MakeManyDisks() {
    test::ReplaceProc();
    std::string list = "major minor  #blocks  name\n\n";
    for (int i = 0; i < 1000; ++i) {
        list += " 259 " + std::to_string(i) + " 1024 disk" + std::to_string(i) + "\n";
    }
    WriteFile("/proc/partitions", list);
}

void MakeIde() {
    MakeDisk();
    WriteFile("/proc/ide/hda/identify", test::KernelText(test::Identity("SERIAL", "FW", "MODEL")));
    test::Sector smart = {};
    test::PutAttribute(smart, 3, DEV_SMART_TEMPERATURE, 40);
    WriteFile("/proc/ide/hda/smart_values", test::KernelText(smart));
}

void StartNfsServer() {
    const gid_t groups[] = {1, 2, 3};
    setgroups(std::size(groups), groups);
    int ready[2];
    CHECK(pipe(ready) == 0);
    StartPeer([&] {
        const RpcPeer tcp{SOCK_STREAM, 20048, RpcPeer::Accept};
        const RpcPeer udp{SOCK_DGRAM, 20048, RpcPeer::Accept};
        const RpcPeer mapper{SOCK_DGRAM, 111,
                             [](const test::Bytes &call) { return test::Reply(call, 0, {20048}); }};
        close(ready[1]);
        for (;;) {
            pause();
        }
    });
    close(ready[1]);
    char none;
    CHECK(read(ready[0], &none, 1) == 0);
    close(ready[0]);
}

template <const char *const &pOptions>
long Notify() {
    NfsMount mount = {};
    strcpy(mount.entry.device, "srv:/export");
    strcpy(mount.entry.type, "nfs");
    strcpy(mount.entry.options, pOptions);
    NotifyNfsServer("Dev_uMount", mount);
    return 0;
}

constexpr const char *kTcp = "tcp,mountport=20048,addr=127.0.0.1";
constexpr const char *kUdp = "udp,mountport=20048,addr=127.0.0.1";
constexpr const char *kMapped = "tcp,addr=127.0.0.1";

template <int (*pEnumerate)(tDevInfo *)>
long Enumerate() {
    memset(g_devices, 0, sizeof g_devices);
    return pEnumerate(g_devices);
}

long DiscInfo() {
    tDevInfo dev = {};
    strcpy(dev.devPath, "/dev/sr0");
    strcpy(dev.sgPath, "/dev/sg1");
    dev.isOptical = 1;
    return Dev_GetDiscInfo(&dev);
}

// Every query, whatever the disc is.
long QueryDisc() {
    const int fd = open("/dev/sg1", O_RDWR | O_CLOEXEC);
    tDiscInfo info = {};
    for (const auto query :
         {Dev_GetConfiguration, Dev_ReadDiscInfo, Dev_ReadTrackInfo, Dev_ReadDvdStruct,
          Dev_ReadFormatCapacity, Dev_ReadCdATIP, Dev_ReadCdToc, Dev_ReadDvdRToc, Dev_GetCdInfo}) {
        query("/dev/sr0", fd, &info);
    }
    Dev_ReadBufferCapacity("/dev/sr0", fd);
    uint8_t cdb[6] = {0x12, 0, 0, 0, 36, 0};
    uint8_t reply[36] = {};
    uint8_t sense[64] = {};
    tMmcCmd cmd = {};
    cmd.hdr.cmdp = cdb;
    cmd.hdr.cmd_len = sizeof cdb;
    cmd.hdr.dxfer_direction = SG_DXFER_FROM_DEV;
    cmd.hdr.dxferp = reply;
    cmd.hdr.dxfer_len = sizeof reply;
    cmd.hdr.sbp = sense;
    cmd.hdr.mx_sb_len = sizeof sense;
    Dev_ExecMMC(&cmd, fd, DEV_MMC_VERBOSE);
    Dev_TestUnitReady("/dev/sr0", fd);
    close(fd);
    return 0;
}

// Every query with replies of several lengths.
long QueryShortReplies() {
    const test::Bytes track = {0, 0x14, 1, 0, 0, 0, 0, 0};
    const test::Bytes leadOut = {0, 0x14, 0xAA, 0, 0, 0x10, 0, 0};
    test::Bytes trackInfo(36);
    trackInfo[1] = 34;
    trackInfo[7] = 1;  // the next writable address is valid
    const test::Bytes contents[] = {{0, 2, 1, 1},
                                    test::Bytes{0, 10, 1, 1} + track,
                                    test::Bytes{0, 18, 1, 1} + track + leadOut,
                                    test::Bytes{0, 10, 1, 1} + leadOut};
    for (uint8_t i = 0; i < 4; ++i) {
        const auto size = static_cast<uint8_t>(8 * i);
        g_drive->Reply(0x43, contents[i]);
        g_drive->Reply(0x23, test::Bytes{0, 0, 0, size} + test::Bytes(size));
        g_drive->Reply(0x52, i == 0 ? test::Bytes{0, 6, 1, 1, 0, 0, 0, 1} : trackInfo);
        QueryDisc();
    }
    // The second request is as long as the first reply says; the second reply says more.
    g_drive->Next(0x23, test::SgAnswer::Data({0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0}));
    g_drive->Reply(0x23, test::Bytes{0, 0, 0, 200} + test::Bytes(200));
    g_drive->Next(0x52, test::SgAnswer::Data({0, 4, 1, 1}));
    QueryDisc();
    // The list that the first reply announced is missing from the second.
    g_drive->Next(0x23, test::SgAnswer::Data({0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0}));
    g_drive->Reply(0x23, {0, 0, 0, 0});
    QueryDisc();
    return 0;
}

long MeasureDisk(const char *pPath) {
    tDevInfo dev = {};
    strcpy(dev.devPath, pPath);
    return Dev_GetHDStat(&dev, DEV_FS_TMPFS);
}

// Mounts and unmounts. A mount that a failed unmount leaves is the caller's.
template <int (*pUnmount)(const char *)>
long MountAndUnmount() {
    long result = Dev_Mount("/dev/sda1", "/tmp/disk", DEV_FS_DETECT);
    if (result == 0 && pUnmount("/tmp/disk") != 0) {
        result = 1;
    }
    return result;
}

void UnmountLeft(long result) {
    CHECK((umount("/tmp/disk") == 0) == (result == 1));
}

void GiveInput(const char *pText) {
    strcpy(g_input, pText);
    g_in = fmemopen(g_input, strlen(g_input), "r");
}

long RunMenu() {
    tDevTestMenu menu = {"/dev/sg1", "/dev/sr0", "/dev/sr0", 8, 0};
    return Dev_RunTestMenu(&menu, g_in);
}

}  // namespace

std::vector<Scenario> DevScenarios() {
    const std::vector<std::string> measured = {"/var/dvd_plus_rw", "/var/dvd_minus_rw",
                                               "/var/bd_re"};
    const std::vector<long> disc = {DEV_DISC_INFO_OK, DEV_DISC_INFO_OPEN_FAILED,
                                    DEV_DISC_INFO_NOT_READY, DEV_DISC_INFO_UNSUPPORTED};
    return {
        {"Dev_Get", MakeDisc, Enumerate<Dev_Get>, {2, 0, 1}, nullptr, measured},
        {"Dev_Get, without standard input",
         [] {
             MakeDisc();
             close(STDIN_FILENO);  // descriptor 0 counts as a failed open
         },
         [] { return Enumerate<Dev_Get>() > 2 ? 1L : 0L; },
         {0},
         nullptr,
         measured},
        {"Dev_GetUSBFlashDevice", MakeDisc, Enumerate<Dev_GetUSBFlashDevice>, {2, 0, 1}},
        {"Dev_BuildSgMap",
         MakeDisc,
         [] {
             tSgMapEntry map[DEV_MAX_DEVICES];
             return long{Dev_BuildSgMap(map)};
         },
         {2, 0, 1}},
        {"naming",
         MakeDisc,
         [] {
             char name[DEV_NODE_NAME_SIZE];
             Dev_MakeDevName(name, 200, DEV_SG_LETTERS);
             return long{Dev_SgToSd("/dev/sg1", name, sizeof name)} +
                    Dev_SdToSg("/dev/sr0", name, sizeof name);
         },
         {0, -1, -2}},
        {"Dev_ConvertMajorMinor",
         [] {
             test::ReplaceDir("/sys");
             mkdir("/sys/dev", 0755);
             mkdir("/sys/dev/block", 0755);
             symlink("../../block/md1", "/sys/dev/block/9:1");
         },
         [] { return long{Dev_ConvertMajorMinor(9, 1, g_text, sizeof g_text)}; },
         {0, -1}},
        {"Dev_GetDiscInfo, DVD+RW", MakeDisc, DiscInfo, disc, nullptr, measured},
        {"Dev_GetDiscInfo, CD-R", MakeCd, DiscInfo, disc},
        {"Dev_GetDiscInfo, DVD-R", MakeDvdR, DiscInfo, disc},
        {"Dev_GetBDReInfo",
         MakeDisc,
         [] {
             tDevInfo dev = {};
             strcpy(dev.devPath, "/dev/sr0");
             return long{Dev_GetBDReInfo(&dev)};
         },
         {DEV_QUERY_OK, DEV_QUERY_FAILED},
         nullptr,
         measured},
        {"disc queries, CD-R", MakeCd, QueryDisc, {0}},
        {"disc queries, empty CD-R", [] { MakeDevices("cd_r_empty.hex"); }, QueryDisc, {0}},
        {"disc queries, DVD-R", MakeDvdR, QueryDisc, {0}},
        {"disc queries, short replies", MakeDvdR, QueryShortReplies, {0}},
        {"disc queries, DVD+RW", MakeDisc, QueryDisc, {0}},
        {"Dev_ExecMMC, check without sense",
         [] {
             MakeDisc();
             test::SgAnswer answer = test::SgAnswer::Check(0, 0, 0);
             answer.sense.clear();
             g_drive->Always(0x12, answer);
         },
         QueryDisc,
         {0}},
        {"Dev_ExecMMC, check",
         [] {
             MakeDisc();
             g_drive->Always(0x12, test::SgAnswer::Check(5, 0x20, 0));
         },
         QueryDisc,
         {0}},
        {"Dev_RescanScsiBus", MakeDisc, [] { return long{Dev_RescanScsiBus()}; }, {1, 0, -1}},
        {"Dev_GetHDStat",
         MakeDisk,
         [] { return MeasureDisk("/dev/null"); },
         {DEV_HD_STAT_OWN_MOUNT, DEV_HD_STAT_FAILED}},
        {"Dev_GetHDStat, mounted",
         [] {
             MakeDisk();
             WriteFile("/proc/mounts", "/dev/sda1 /tmp ext3 rw 0 0\n");
         },
         [] { return MeasureDisk("/dev/sda1"); },
         {DEV_HD_STAT_MOUNTED, DEV_HD_STAT_OWN_MOUNT, DEV_HD_STAT_FAILED}},
        {"Dev_Mount, Dev_uMount", MakeDisk, MountAndUnmount<Dev_uMount>, {0, -1, 1}, UnmountLeft},
        {"Dev_Mount, Dev_uMount_Force",
         MakeDisk,
         MountAndUnmount<Dev_uMount_Force>,
         {0, -1, 1},
         UnmountLeft},
        {"Dev_Mount, export",
         MakeDisk,
         [] { return long{Dev_Mount("s:/x", "/tmp/disk", DEV_FS_NFS) == 0}; },
         {0}},
        {"mount tables",
         MakeDisk,
         [] {
             tMountEntry entry;
             return long{Dev_nGetMPT("/dev/hda1", g_text, 0)} +
                    Dev_GetDevViaMount(g_text, "/home") + Dev_GetEntryViaMtab("/home", &entry) +
                    Dev_CheckPartition("sda1");
         },
         {0, -1, -2, -3, -4}},
        {"Dev_CheckPartition, long table",
         MakeManyDisks,
         [] { return long{Dev_CheckPartition("disk999")}; },
         {0, -1}},
        {"file systems",
         MakeDisk,
         [] {
             Dev_InitFsArray();
             return long{Dev_FsCheckFlag("tmpfs", DEV_FS_IS_UNMARKED)};
         },
         {0, -1}},
        {"Dev_GetDevIdentify",
         MakeIde,
         [] {
             strcpy(g_text, "old");
             const long result = Dev_GetDevIdentify("hda", nullptr, nullptr, g_text);
             CHECK((result == 0) == (strcmp(g_text, "old") != 0));
             return result;
         },
         {0, -1}},
        {"Dev_GetIDViaMount",
         MakeIde,
         [] { return long{Dev_GetIDViaMount("/home", nullptr, nullptr, g_text)}; },
         {0, -1}},
        {"Dev_GetSmartValue",
         MakeIde,
         [] {
             tSmartAttr attribute = {DEV_SMART_TEMPERATURE, 7};
             const long result = Dev_GetSmartValue("hda", &attribute);
             CHECK(attribute.value == (result == 0 ? 40 : 7));
             return result;
         },
         {0, -1}},
        {"NFS notice, TCP", StartNfsServer, Notify<kTcp>, {0}},
        {"NFS notice, UDP", StartNfsServer, Notify<kUdp>, {0}},
        {"NFS notice, portmapper", StartNfsServer, Notify<kMapped>, {0}},
        {"NFS notice, no server", nullptr, Notify<kMapped>, {0}},
        {"menu, names",
         [] {
             MakeDisc();
             GiveInput(
                 "0\n1\n/dev/sg1\n2\n/dev/sr0\n3\n/dev/sr0\n4\n8\n9\n10\n12\n13\n8\n14\n0\n15\n"
                 "x\n99999999999\n99\n17\n");
         },
         RunMenu,
         {0},
         nullptr,
         measured},
        {"menu, devices",
         [] {
             MakeCd();
             GiveInput("5\n6\n7\n3\n/dev/sr0\n10\n16\n11\ns:/x\n/tmp\n3\n/none\n10\n");
         },
         RunMenu,
         {0},
         nullptr,
         measured},
        {"menu, read-only disc",
         [] {
             MakeDevices("dvd_rom.hex");
             GiveInput("3\n/dev/sr0\n10\n3\n/dev/a-name-that-is-too-long\n10\n17\n");
         },
         RunMenu,
         {0}},
        {"menu, rewritable disc and mounted disk",
         [] {
             MakeDevices("dvd_minus_rw_overwrite.hex");
             test::ReplaceProc();
             WriteFile("/proc/mounts", "/dev/sda /tmp ext3 rw 0 0\n");
             GiveInput("5\n3\n/dev/sr0\n10\n17\n");
         },
         RunMenu,
         {0},
         nullptr,
         measured},
        {"menu, lines",
         [] {
             MakeIde();
             GiveInput((std::string(300, 'x') + "\n3\n" + std::string(100, 'x') +
                        "\n/dev/hda\n6\n7\n16\n12\n")
                           .c_str());
         },
         RunMenu,
         {0}},
    };
}

}  // namespace talvek::faults
