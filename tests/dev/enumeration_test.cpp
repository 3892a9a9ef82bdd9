#include "dev/enumeration.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "dev/file_system.h"
#include "dev/internal/scsi_nodes.h"
#include "support/capture.h"
#include "support/private_world.h"
#include "support/simulated_drive.h"

namespace {

using namespace talvek::test;

constexpr const char *kUsbHost = "SCSI emulation for USB Mass Storage devices";

// INQUIRY data (SPC-4 6.6.2): vendor in bytes 8 to 15, product in 16 to 31, revision in 32 to 35.
Bytes InquiryData(const std::string &vendor, const std::string &product) {
    Bytes data(96, 0);
    const auto put = [&data](size_t at, size_t size, const std::string &text) {
        std::string padded = text;
        padded.resize(size, ' ');
        memcpy(data.data() + at, padded.data(), size);
    };
    put(8, 8, vendor);
    put(16, 16, product);
    put(32, 4, "1.0");
    return data;
}

// IDLUN's first word: id in bits 0 to 7, lun in 8 to 15, channel in 16 to 23, host in 24 to 31.
uint32_t IdLun(uint32_t channel, uint32_t id, uint32_t lun) {
    return 1u << 24 | channel << 16 | lun << 8 | id;
}

// A device with two nodes; its host and id are `number`.
std::unique_ptr<SimulatedDrive> MakeDevice(const std::string &node, const std::string &sgNode,
                                           const char *pHostText, uint32_t number) {
    auto device = std::make_unique<SimulatedDrive>(std::vector<std::string>{node, sgNode});
    device->hostText = pHostText;
    device->host = number;
    device->idlun = IdLun(0, number, 0);
    device->Reply(0x12, InquiryData("MAKER", "DISK " + std::to_string(number)));
    device->otherIoctl = [](unsigned long request, void *arg) -> std::optional<int> {
        if (request != BLKGETSIZE64) {
            return std::nullopt;
        }
        const uint64_t bytes = uint64_t{500} << 20;
        memcpy(arg, &bytes, sizeof bytes);
        return 0;
    };
    return device;
}

// Runs `body` with a /dev, /proc and /var of its own and with `mounts` in /proc/mounts. No file
// system is known, so that nothing can be mounted.
void WithMachine(const std::string &mounts, const std::function<void()> &body) {
    RunInPrivateWorld(
        kMounts,
        [&] {
            MountTmpfs("/var");
            ReplaceDir("/proc");
            ReplaceDir("/dev");
            WriteFile("/proc/mounts", mounts);
            WriteFile("/proc/filesystems", "nodev\tproc\n");
            WriteFile("/proc/partitions", "major minor  #blocks  name\n\n");
            CaptureLog(Dev_InitFsArray);
            // While a simulated device exists, only its nodes can be opened.
            const SimulatedDrive none;
            body();
        },
        true);
}

struct Found {
    int count;
    std::vector<tDevInfo> devs;
    Lines lines;
};

Found Enumerate(int (*pEnumerate)(tDevInfo *)) {
    Found found{};
    found.devs.resize(DEV_MAX_DEVICES);
    memset(found.devs.data(), 0, DEV_MAX_DEVICES * sizeof(tDevInfo));
    found.lines = CaptureLog([&] { found.count = pEnumerate(found.devs.data()); });
    return found;
}

bool Has(const Lines &lines, const std::string &line) {
    for (const std::string &one : lines) {
        if (one == line) {
            return true;
        }
    }
    return false;
}

#define EXPECT_HAS(lines, line) EXPECT_TRUE(Has(lines, line)) << ::testing::PrintToString(lines)

// The values that other programs are compiled with.
static_assert(DEV_BUS_ATA == 0 && DEV_BUS_USB == 1 && DEV_BUS_IEEE1394 == 2 && DEV_BUS_ESATA == 3);
static_assert(DEV_MAX_DEVICES == 32 && DEV_INFO_MODEL_SIZE == 28 && DEV_INFO_PATH_SIZE == 12 &&
              DEV_INFO_MOUNT_SIZE == 120);

TEST(Enumeration, RefusesNull) {
    EXPECT_EQ((Lines{"DEV:Dev_Get(): ((nil)) : Null Ptr",
                     "DEV:Dev_GetUSBFlashDevice(): ((nil)) : Null Ptr",
                     "DEV:Dev_BuildSgMap(): ((nil)) : Null Ptr"}),
              CaptureLog([] {
                  EXPECT_EQ(0, Dev_Get(nullptr));
                  EXPECT_EQ(0, Dev_GetUSBFlashDevice(nullptr));
                  EXPECT_EQ(0, Dev_BuildSgMap(nullptr));
              }));
}

// Without /dev/sg0 the generic nodes have letters, of which there are 26.
TEST(Enumeration, FindsNothing) {
    WithMachine("", [] {
        Lines expected;
        for (int k = 26; k < 32; ++k) {
            expected.push_back("DEV:Dev_MakeDevName(): k = " + std::to_string(k) +
                               ", out of range");
        }
        for (const auto &[pEnumerate, pName] :
             {std::pair{&Dev_Get, "Dev_Get"}, {&Dev_GetUSBFlashDevice, "Dev_GetUSBFlashDevice"}}) {
            Lines all = expected;
            all.push_back(std::string{"DEV:"} + pName + "(): Found 0 devices");
            const Found found = Enumerate(pEnumerate);
            EXPECT_EQ(0, found.count);
            EXPECT_EQ(all, found.lines);
        }
    });
}

// Major 8 for the first 16 disks, 65 for the others; 16 minor numbers a disk.
TEST(Enumeration, MakesTheNodesOfDisks) {
    WithMachine("", [] {
        umask(0);
        WriteFile("/dev/sdc", "");
        Enumerate(Dev_Get);
        for (unsigned n = 0; n < 26; ++n) {
            const std::string path = std::string{"/dev/sd"} + static_cast<char>('a' + n);
            struct stat st;
            ASSERT_EQ(0, stat(path.c_str(), &st)) << path;
            if (n == 2) {
                EXPECT_TRUE(S_ISREG(st.st_mode));
                continue;
            }
            EXPECT_EQ(mode_t{S_IFBLK | 0664}, st.st_mode) << path;
            EXPECT_EQ(n < 16 ? 8u : 65u, major(st.st_rdev)) << path;
            EXPECT_EQ(16 * (n % 16), minor(st.st_rdev)) << path;
        }
        struct stat st;
        ASSERT_EQ(0, stat("/dev/sdq", &st));
        EXPECT_EQ(makedev(65, 0), st.st_rdev);
        EXPECT_EQ(-1, stat("/dev/sr0", &st));
    });
}

TEST(Enumeration, ListsAUsbStickAndADvdWriter) {
    WithMachine("/dev/sdb1 /mnt vfat rw 0 0\n", [] {
        MountTmpfs("/mnt");
        struct statfs st;
        ASSERT_EQ(0, statfs("/mnt", &st));
        const auto stick = MakeDevice("/dev/sdb", "/dev/sg1", kUsbHost, 6);
        const auto writer = MakeDevice("/dev/sr0", "/dev/sg0", "ata_piix", 1);
        writer->idlun = IdLun(3, 2, 1);
        writer->Reply(0x12, InquiryData("DRV", "WR-24X   B"));
        const Found found = Enumerate(Dev_Get);
        ASSERT_EQ(2, found.count);

        const tDevInfo &disk = found.devs[0];
        EXPECT_STREQ("MAKER DISK 6", disk.model);
        EXPECT_STREQ("/dev/sdb", disk.devPath);
        EXPECT_STREQ("/dev/sg1", disk.sgPath);
        EXPECT_STREQ("/mnt", disk.mountPoint);
        EXPECT_EQ(6u, disk.scsiAddr.host);
        EXPECT_EQ(6u, disk.scsiAddr.id);
        EXPECT_EQ(1, disk.ready);
        EXPECT_EQ(0, disk.isOptical);
        EXPECT_EQ(DEV_BUS_USB, disk.busType);
        EXPECT_EQ(static_cast<uint32_t>(st.f_type), disk.u.disk.fsType);
        EXPECT_EQ(st.f_blocks, disk.u.disk.totalBlocks);
        EXPECT_EQ(uint64_t{500} << 20, disk.u.disk.deviceBytes);

        const tDevInfo &drive = found.devs[1];
        EXPECT_STREQ("DRV WR24X B", drive.model);
        EXPECT_STREQ("/dev/sr0", drive.devPath);
        EXPECT_STREQ("/dev/sg0", drive.sgPath);
        EXPECT_STREQ("", drive.mountPoint);
        EXPECT_EQ(1u, drive.scsiAddr.host);
        EXPECT_EQ(3u, drive.scsiAddr.channel);
        EXPECT_EQ(2u, drive.scsiAddr.id);
        EXPECT_EQ(1u, drive.scsiAddr.lun);
        EXPECT_EQ(1, drive.ready);
        EXPECT_EQ(1, drive.isOptical);
        EXPECT_EQ(DEV_BUS_ATA, drive.busType);
        const tDiscInfo noDisc{};
        EXPECT_EQ(0, memcmp(&noDisc, &drive.u.disc, sizeof noDisc));

        const uint64_t freeMb = static_cast<uint64_t>(st.f_bsize) * st.f_bfree >> 20;
        const size_t last = found.lines.size();
        ASSERT_GE(last, 4u);
        EXPECT_HAS(found.lines, "DEV:Dev_Get(): Unknown host - string_buf = [ata_piix]");
        EXPECT_EQ("DEV:Dev_Get(): Found 2 devices", found.lines[last - 3]);
        EXPECT_EQ("  pDev[0] : MAKER DISK 6 : /dev/sdb : /dev/sg1 : Ready : HDD : USB, 6,0,6,0 : " +
                      std::to_string(freeMb) + " MB(500)",
                  found.lines[last - 2]);
        EXPECT_EQ(
            "  pDev[1] : DRV WR24X B : /dev/sr0 : /dev/sg0 : Ready : CD-ROM : ATA, 1,3,2,1 : "
            "0 MB(0)",
            found.lines[last - 1]);
        EXPECT_EQ(O_NONBLOCK | O_CLOEXEC, writer->openFlags & (O_NONBLOCK | O_CLOEXEC));
        EXPECT_EQ(O_RDWR, writer->openFlags & O_ACCMODE);
        EXPECT_EQ(3, writer->opens);  // for the map, as a node, for its model
    });
}

struct BusCase {
    std::string text;
    uint8_t busType;
    const char *name;
    bool unknown;
};

TEST(Enumeration, DerivesTheBusFromTheTextOfTheHost) {
    const std::string nineteen(19, 'x');
    const std::vector<BusCase> cases = {
        {kUsbHost, DEV_BUS_USB, "USB", false},
        {nineteen + "usb", DEV_BUS_USB, "USB", false},
        {nineteen + "UsB stick", DEV_BUS_USB, "USB", false},
        {nineteen + "US", DEV_BUS_ATA, "ATA", true},
        {nineteen + " USB", DEV_BUS_ATA, "ATA", true},
        {nineteen.substr(1) + "USB", DEV_BUS_ATA, "ATA", true},
        {nineteen + "IEEE-1394 SBP-2", DEV_BUS_IEEE1394, "IEEE-1394", false},
        {nineteen + "ieee-1394", DEV_BUS_IEEE1394, "IEEE-1394", false},
        {"IEEE-1394 SBP-2 protocol driver", DEV_BUS_IEEE1394, "IEEE-1394", false},
        {"ieee-1394", DEV_BUS_IEEE1394, "IEEE-1394", false},
        {"IEEE-139", DEV_BUS_ATA, "ATA", true},
        {"usb-storage", DEV_BUS_USB, "USB", false},
        {"USB-Storage 2", DEV_BUS_USB, "USB", false},
        {"usb-storag", DEV_BUS_ATA, "ATA", true},
        {"USB", DEV_BUS_ATA, "ATA", true},
        // The text from character 19 on is compared first.
        {"IEEE-1394xxxxxxxxxxUSB", DEV_BUS_USB, "USB", false},
        {"usb-storage12345678IEEE-1394", DEV_BUS_IEEE1394, "IEEE-1394", false},
        {"ahci", DEV_BUS_ATA, "ATA", true},
        {"", DEV_BUS_ATA, "ATA", true},
        {std::string(511, 't'), DEV_BUS_ATA, "ATA", true},
    };
    for (const BusCase &one : cases) {
        WithMachine("", [&] {
            const auto device = MakeDevice("/dev/sr3", "/dev/sg0", one.text.c_str(), 1);
            const Found found = Enumerate(Dev_Get);
            ASSERT_EQ(1, found.count);
            EXPECT_EQ(one.busType, found.devs[0].busType) << one.text;
            EXPECT_EQ(one.unknown, Has(found.lines, "DEV:Dev_Get(): Unknown host - string_buf = [" +
                                                        one.text + "]"))
                << one.text;
            EXPECT_NE(std::string::npos,
                      found.lines.back().find(" : CD-ROM : " + std::string{one.name} + ", 1,"))
                << found.lines.back();
        });
    }
}

// The buffer has 512 bytes.
TEST(Enumeration, AcceptsATextOfTheHostOfAnyLength) {
    WithMachine("", [] {
        const auto device = MakeDevice("/dev/sr3", "/dev/sg0", std::string(5000, 't').c_str(), 1);
        const Found found = Enumerate(Dev_Get);
        EXPECT_EQ(1, found.count);
        EXPECT_HAS(found.lines,
                   "DEV:Dev_Get(): Unknown host - string_buf = [" + std::string(512, 't') + "]");
    });
}

TEST(Enumeration, KeepsADeviceWhoseHostReportsNoText) {
    WithMachine("", [] {
        const auto device = MakeDevice("/dev/sr0", "/dev/sg0", kUsbHost, 1);
        device->probeError = ENOTTY;
        const Found found = Enumerate(Dev_Get);
        ASSERT_EQ(1, found.count);
        EXPECT_EQ(0, found.devs[0].busType);
        EXPECT_HAS(found.lines,
                   "DEV:Dev_Get(): ioctl(SCSI_IOCTL_PROBE_HOST) error : Inappropriate ioctl for "
                   "device");
    });
}

TEST(Enumeration, SkipsNodesThatCannotBeOpenedOrQueried) {
    WithMachine("", [] {
        SimulatedDrive noBus{{"/dev/sda"}};
        noBus.busNumberError = EIO;
        SimulatedDrive noIdlun{{"/dev/sr1"}};
        noIdlun.idlunError = EIO;
        SimulatedDrive noOpen{{"/dev/sr2"}};
        noOpen.openError = ENOMEDIUM;
        const auto good = MakeDevice("/dev/sr4", "/dev/sg0", kUsbHost, 1);
        const Found found = Enumerate(Dev_Get);
        ASSERT_EQ(1, found.count);
        EXPECT_STREQ("/dev/sr4", found.devs[0].devPath);
        EXPECT_HAS(found.lines, "DEV:Dev_Get(): get bus No. ioctl on /dev/sda failed");
        EXPECT_HAS(found.lines, "DEV:Dev_Get(): get IDLUN ioctl on /dev/sr1 failed");
        EXPECT_HAS(found.lines, "DEV:Dev_Get(): Found 1 devices");
    });
}

TEST(Enumeration, SkipsANodeThatOpensAsDescriptorZero) {
    WithMachine("", [] {
        const auto device = MakeDevice("/dev/sr0", "/dev/sg0", kUsbHost, 1);
        std::vector<tDevInfo> devs(DEV_MAX_DEVICES);
        CaptureLog([&] {
            close(STDIN_FILENO);
            EXPECT_EQ(0, Dev_Get(devs.data()));
        });
        EXPECT_EQ(2, device->opens);  // for the map and as a node
        EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD));
    });
}

TEST(Enumeration, SkipsADeviceWithoutAGenericNode) {
    WithMachine("", [] {
        const auto good = MakeDevice("/dev/sr0", "/dev/sg0", kUsbHost, 1);
        // All four words of the address are compared.
        SimulatedDrive otherHost{{"/dev/sr1"}};
        otherHost.host = 2;
        otherHost.hostText = "odd";
        otherHost.idlun = good->idlun;
        SimulatedDrive otherChannel{{"/dev/sr2"}};
        otherChannel.host = 1;
        otherChannel.idlun = IdLun(1, 1, 0);
        SimulatedDrive otherId{{"/dev/sr3"}};
        otherId.host = 1;
        otherId.idlun = IdLun(0, 2, 0);
        SimulatedDrive otherLun{{"/dev/sr4"}};
        otherLun.host = 1;
        otherLun.idlun = IdLun(0, 1, 1);
        // No device has the address of an unused row.
        SimulatedDrive allOnes{{"/dev/sr5"}};
        allOnes.host = 0xFFFFFFFF;
        allOnes.idlun = 0xFFFFFFFF;
        const Found found = Enumerate(Dev_Get);
        ASSERT_EQ(1, found.count);
        EXPECT_STREQ("/dev/sr0", found.devs[0].devPath);
        EXPECT_HAS(found.lines, "DEV:Dev_Get(): Unknown host - string_buf = [odd]");
        EXPECT_EQ(O_RDONLY | O_NONBLOCK,
                  otherLun.openFlags & (O_ACCMODE | O_NONBLOCK));  // as a node
        // The records after the last device are unchanged.
        const tDevInfo empty{};
        EXPECT_EQ(0, memcmp(&empty, &found.devs[1], sizeof empty));
    });
}

TEST(Enumeration, PairsWithTheFirstGenericNodeOfTheAddress) {
    WithMachine("", [] {
        const auto drive = MakeDevice("/dev/sr0", "/dev/sg0", kUsbHost, 1);
        SimulatedDrive same{{"/dev/sg1"}};
        same.host = drive->host;
        same.idlun = drive->idlun;
        same.Always(0x00, SgAnswer::Check(0x02, 0x3A, 0));
        const Found found = Enumerate(Dev_Get);
        ASSERT_EQ(1, found.count);
        EXPECT_STREQ("/dev/sg0", found.devs[0].sgPath);
        EXPECT_EQ(1, found.devs[0].ready);
    });
}

TEST(Enumeration, DropsADiskThatIsNotReadyAndKeepsADrive) {
    WithMachine("", [] {
        const auto disk = MakeDevice("/dev/sda", "/dev/sg0", kUsbHost, 1);
        const auto drive = MakeDevice("/dev/sr0", "/dev/sg1", kUsbHost, 2);
        const auto tape = MakeDevice("/dev/nst0", "/dev/sg2", kUsbHost, 3);
        disk->Always(0x00, SgAnswer::Check(0x02, 0x3A, 0));
        drive->Always(0x00, SgAnswer::Check(0x02, 0x3A, 0));
        const Found found = Enumerate(Dev_Get);
        ASSERT_EQ(2, found.count);
        EXPECT_STREQ("/dev/sr0", found.devs[0].devPath);
        EXPECT_EQ(0, found.devs[0].ready);
        EXPECT_EQ(1, found.devs[0].isOptical);
        EXPECT_STREQ("/dev/nst0", found.devs[1].devPath);
        EXPECT_EQ(1, found.devs[1].ready);
        EXPECT_EQ(1, found.devs[1].isOptical);
        EXPECT_NE(std::string::npos,
                  found.lines[found.lines.size() - 2].find(" : Not Ready : CD-ROM : USB, 2,"));
        EXPECT_EQ(3u, disk->RequestsOf(0x00).size());
        EXPECT_EQ(0u, disk->RequestsOf(0x12).size());
    });
}

TEST(Enumeration, KeepsADeviceWithoutModel) {
    WithMachine("", [] {
        const auto device = MakeDevice("/dev/sr0", "/dev/sg0", kUsbHost, 1);
        device->Always(0x12, SgAnswer::Error(EIO));
        const Found found = Enumerate(Dev_Get);
        ASSERT_EQ(1, found.count);
        EXPECT_STREQ("", found.devs[0].model);
        EXPECT_EQ("  pDev[0] :  : /dev/sr0 : /dev/sg0 : Ready : CD-ROM : USB, 1,0,1,0 : 0 MB(0)",
                  found.lines.back());
    });
}

TEST(Enumeration, ListsADiskThatCannotBeMounted) {
    WithMachine("", [] {
        const auto device = MakeDevice("/dev/sdq", "/dev/sg0", "usb-storage", 1);
        const Found found = Enumerate(Dev_Get);
        ASSERT_EQ(1, found.count);
        EXPECT_EQ(uint64_t{500} << 20, found.devs[0].u.disk.deviceBytes);
        EXPECT_EQ(
            "  pDev[0] : MAKER DISK 1 : /dev/sdq : /dev/sg0 : Ready : HDD : USB, 1,0,1,0 : 0 "
            "MB(500)",
            found.lines.back());
    });
}

// 512 bytes times 2^32 - 1 sectors needs more than 32 bits.
TEST(Enumeration, ListsTheSizeOfADiskThatReportsSectorsOnly) {
    WithMachine("", [] {
        const auto device = MakeDevice("/dev/sda", "/dev/sg0", "usb-storage", 1);
        device->otherIoctl = [](unsigned long request, void *arg) -> std::optional<int> {
            if (request != BLKGETSIZE) {
                errno = EINVAL;
                return -1;
            }
            const unsigned long sectors = 0xFFFFFFFF;
            memcpy(arg, &sectors, sizeof sectors);
            return 0;
        };
        const Found found = Enumerate(Dev_Get);
        ASSERT_EQ(1, found.count);
        EXPECT_EQ(uint64_t{0xFFFFFFFF} * 512, found.devs[0].u.disk.deviceBytes);
        const auto at = [&found](const std::string &line) {
            return std::find(found.lines.begin(), found.lines.end(), line);
        };
        const auto measured =
            at("DEV:Dev_GetHDStat(): ioctl(BLKGETSIZE64, /dev/sda) error : Invalid argument");
        const auto inquired = at("DEV:Dev_Inquiry(): Vendor          = MAKER   ");
        ASSERT_NE(found.lines.end(), inquired);
        EXPECT_LT(measured, inquired) << "a disk is measured before its model is read";
        EXPECT_TRUE(found.lines.back().ends_with(" : 0 MB(2097151)")) << found.lines.back();
    });
}

// Detection tries the partitions and disks of /proc/partitions, and tmpfs accepts every device.
TEST(Enumeration, DetectsTheFileSystemOfADisk) {
    WithMachine("", [] {
        WriteFile("/proc/filesystems", "nodev\ttmpfs\n");
        WriteFile("/proc/partitions", "major minor  #blocks  name\n\n   8 0 512000 sda\n");
        CaptureLog(Dev_InitFsArray);
        const auto listed = MakeDevice("/dev/sda", "/dev/sg0", kUsbHost, 1);
        const auto other = MakeDevice("/dev/sdb", "/dev/sg1", kUsbHost, 2);
        const Found found = Enumerate(Dev_Get);
        ASSERT_EQ(2, found.count);
        EXPECT_EQ(uint32_t{DEV_FS_TYPE_TMPFS}, found.devs[0].u.disk.fsType);
        EXPECT_LT(0u, found.devs[0].u.disk.totalBlocks);
        EXPECT_STREQ("", found.devs[0].mountPoint);
        EXPECT_EQ(0u, found.devs[1].u.disk.fsType);
        EXPECT_EQ(0u, found.devs[1].u.disk.totalBlocks);
    });
}

// Thirty-three nodes pair with a generic node.
TEST(Enumeration, EndsWith32Devices) {
    WithMachine("", [] {
        std::vector<std::unique_ptr<SimulatedDrive>> devices;
        for (uint32_t i = 0; i < 33; ++i) {
            // The last two nodes have the same address, since there are only 32 generic nodes.
            const std::string sgNode = "/dev/sg" + std::to_string(i < 32 ? i : 99);
            devices.push_back(
                MakeDevice(talvek::kCandidateNodes[i], sgNode, kUsbHost, i < 32 ? i : 31));
        }
        const Found found = Enumerate(Dev_Get);
        ASSERT_EQ(32, found.count);
        EXPECT_HAS(found.lines, "DEV:Dev_Get(): Found 32 devices");
        for (int i = 0; i < 32; ++i) {
            EXPECT_STREQ(talvek::kCandidateNodes[i], found.devs[static_cast<size_t>(i)].devPath);
        }
        EXPECT_EQ(0, devices[32]->opens);
        ASSERT_EQ(0u,
                  found.lines.back().find("  pDev[31] : MAKER DISK 31 : /dev/sr5 : /dev/sg31 "));
    });
}

TEST(UsbFlashDevice, EndsAfterTheFirstDeviceOnUsb) {
    WithMachine("", [] {
        const auto disk = MakeDevice("/dev/sda", "/dev/sg0", "ahci", 1);
        const auto stick = MakeDevice("/dev/sdb", "/dev/sg1", kUsbHost, 2);
        const auto second = MakeDevice("/dev/sdc", "/dev/sg2", kUsbHost, 3);
        const Found found = Enumerate(Dev_GetUSBFlashDevice);
        ASSERT_EQ(2, found.count);
        EXPECT_STREQ("/dev/sda", found.devs[0].devPath);
        EXPECT_STREQ("/dev/sdb", found.devs[1].devPath);
        EXPECT_EQ(1, found.devs[1].ready);
        EXPECT_EQ(DEV_BUS_USB, found.devs[1].busType) << "the last record is the device found";
        const tDiskStat none{};
        EXPECT_EQ(0, memcmp(&none, &found.devs[0].u.disk, sizeof none));
        const size_t last = found.lines.size();
        EXPECT_EQ((Lines{"DEV:Dev_GetUSBFlashDevice(): Found 2 devices",
                         "  pDev[0] : MAKER DISK 1 : /dev/sda : ATA ",
                         "  pDev[1] : MAKER DISK 2 : /dev/sdb : USB "}),
                  (Lines{found.lines.begin() + static_cast<long>(last) - 3, found.lines.end()}));
        EXPECT_HAS(found.lines, "DEV:Dev_GetUSBFlashDevice(): Unknown host - string_buf = [ahci]");
    });
}

TEST(UsbFlashDevice, HasNoUsbDeviceInTheLastRecordWhenNoneIsFound) {
    WithMachine("", [] {
        const auto disk = MakeDevice("/dev/sda", "/dev/sg0", "ahci", 1);
        const auto drive = MakeDevice("/dev/sr0", "/dev/sg1", "IEEE-1394", 2);
        const Found found = Enumerate(Dev_GetUSBFlashDevice);
        ASSERT_EQ(2, found.count);
        EXPECT_NE(DEV_BUS_USB, found.devs[1].busType);
    });
}

TEST(UsbFlashDevice, AcceptsReadyDisksAndEveryDrive) {
    WithMachine("", [] {
        const auto disk = MakeDevice("/dev/sda", "/dev/sg0", kUsbHost, 1);
        const auto drive = MakeDevice("/dev/sr0", "/dev/sg1", "IEEE-1394", 2);
        disk->Always(0x00, SgAnswer::Check(0x02, 0x3A, 0));
        drive->Always(0x00, SgAnswer::Check(0x02, 0x3A, 0));
        const Found found = Enumerate(Dev_GetUSBFlashDevice);
        ASSERT_EQ(1, found.count);
        EXPECT_STREQ("/dev/sr0", found.devs[0].devPath);
        EXPECT_EQ(0, found.devs[0].isOptical);
        EXPECT_EQ("  pDev[0] : MAKER DISK 2 : /dev/sr0 : IEEE-1394 ", found.lines.back());
    });
}

TEST(BuildSgMap, HasARowForEachGenericNode) {
    WithMachine("", [] {
        const auto first = MakeDevice("/dev/sda", "/dev/sg0", "", 4);
        const auto last = MakeDevice("/dev/sdb", "/dev/sg31", "", 5);
        last->idlun = IdLun(0xAB, 0xCD, 0xEF);
        last->Always(0x00, SgAnswer::Check(0x02, 0x3A, 0));
        tSgMapEntry map[DEV_MAX_DEVICES];
        memset(map, 0x5A, sizeof map);
        EXPECT_EQ(Lines{"DEV:Dev_ExecMMC(): ((/dev/sg31) TEST UNIT READY) Fail"}, [&] {
            Lines lines = CaptureLog([&] { EXPECT_EQ(1, Dev_BuildSgMap(map)); });
            EXPECT_EQ(3u, lines.size());  // one for each attempt
            lines.resize(1);
            return lines;
        }());
        for (unsigned k = 0; k < DEV_MAX_DEVICES; ++k) {
            EXPECT_EQ("/dev/sg" + std::to_string(k), map[k].sgPath);
            EXPECT_EQ(k == 0, map[k].ready);
            if (k != 0 && k != 31) {
                const tScsiAddr unused{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
                EXPECT_EQ(0, memcmp(&unused, &map[k].scsiAddr, sizeof unused)) << k;
            }
        }
        EXPECT_EQ(1, last->opens);
        EXPECT_EQ(O_RDWR | O_NONBLOCK, last->openFlags & (O_ACCMODE | O_NONBLOCK));
        EXPECT_EQ(4u, map[0].scsiAddr.host);
        EXPECT_EQ(4u, map[0].scsiAddr.id);
        EXPECT_EQ(5u, map[31].scsiAddr.host);
        EXPECT_EQ(0xABu, map[31].scsiAddr.channel);
        EXPECT_EQ(0xCDu, map[31].scsiAddr.id);
        EXPECT_EQ(0xEFu, map[31].scsiAddr.lun);
    });
}

TEST(BuildSgMap, UsesLettersWhereThereIsNoSg0) {
    WithMachine("", [] {
        const auto first = MakeDevice("/dev/sda", "/dev/sga", "", 1);
        const auto last = MakeDevice("/dev/sdb", "/dev/sgz", "", 2);
        const auto number = MakeDevice("/dev/sdc", "/dev/sg1", "", 3);
        tSgMapEntry map[DEV_MAX_DEVICES];
        CaptureLog([&] { EXPECT_EQ(2, Dev_BuildSgMap(map)); });
        for (int k = 0; k < DEV_MAX_DEVICES; ++k) {
            const std::string name =
                k < 26 ? std::string{"/dev/sg"} + static_cast<char>('a' + k) : "/dev/sgxx";
            EXPECT_EQ(name, map[k].sgPath);
            EXPECT_EQ(k == 0 || k == 25, map[k].ready != 0);
        }
        const Found found = Enumerate(Dev_GetUSBFlashDevice);
        ASSERT_EQ(2, found.count);
        EXPECT_STREQ("/dev/sga", found.devs[0].sgPath);
        EXPECT_STREQ("/dev/sgz", found.devs[1].sgPath);
    });
}

TEST(BuildSgMap, KeepsNumbersWhenSg0FailsOtherwise) {
    WithMachine("", [] {
        SimulatedDrive busy{{"/dev/sg0"}};
        busy.openError = EBUSY;
        const auto second = MakeDevice("/dev/sda", "/dev/sg1", "", 1);
        const auto letter = MakeDevice("/dev/sdb", "/dev/sga", "", 2);
        tSgMapEntry map[DEV_MAX_DEVICES];
        EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(1, Dev_BuildSgMap(map)); }));
        EXPECT_STREQ("/dev/sg0", map[0].sgPath);
        EXPECT_EQ(0xFFFFFFFFu, map[0].scsiAddr.host);
        EXPECT_EQ(1u, map[1].scsiAddr.host);
    });
}

TEST(BuildSgMap, LeavesTheRowOfANodeThatCannotBeQueriedUnused) {
    WithMachine("", [] {
        SimulatedDrive noBus{{"/dev/sg0"}};
        noBus.busNumberError = EIO;
        SimulatedDrive noIdlun{{"/dev/sg1"}};
        noIdlun.idlunError = ENODEV;
        tSgMapEntry map[DEV_MAX_DEVICES];
        EXPECT_EQ((Lines{"DEV:Dev_BuildSgMap(): get bus no on /dev/sg0 failed : Input/output error",
                         "DEV:Dev_BuildSgMap(): get IDLUN on /dev/sg1 failed : No such device"}),
                  CaptureLog([&] { EXPECT_EQ(0, Dev_BuildSgMap(map)); }));
        EXPECT_EQ(0u, noBus.requests.size());
        EXPECT_EQ(0u, noIdlun.requests.size());
        EXPECT_EQ(0xFFFFFFFFu, map[0].scsiAddr.host);
        EXPECT_EQ(0xFFFFFFFFu, map[1].scsiAddr.id);
    });
}

}  // namespace
