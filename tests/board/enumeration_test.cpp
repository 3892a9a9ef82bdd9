// Enumeration of disks and drives that are really attached. What the kernel shows of them in sysfs
// is the measure.

#include "dev/enumeration.h"

#include <ctype.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "board/support/board.h"
#include "board/support/monitor.h"
#include "dev/naming.h"
#include "support/capture.h"

namespace {

using namespace talvek::test;

// The model as the module builds it of vendor and product: letters and digits, single blanks.
std::string ModelOf(const SysfsDevice &device) {
    std::string padded = device.vendor;
    padded.resize(8, ' ');
    padded += device.model;
    padded.resize(24, ' ');
    std::string model;
    bool blank = false;
    for (const char c : padded) {
        if (isalnum(static_cast<unsigned char>(c)) != 0) {
            model += c;
            blank = false;
        } else if (c == ' ' && !blank) {
            model += c;
            blank = true;
        }
    }
    return model.substr(0, model.find_last_not_of(' ') + 1);
}

// The devices that the enumeration is to find, in its order: disks, then drives.
std::vector<SysfsDevice> Attached() {
    std::vector<SysfsDevice> found;
    for (const SysfsDevice &device : SysfsDevices()) {
        if (device.node.rfind("/dev/sd", 0) == 0) {
            found.push_back(device);
        }
    }
    for (const SysfsDevice &device : SysfsDevices()) {
        if (device.node.rfind("/dev/sr", 0) == 0) {
            found.push_back(device);
        }
    }
    return found;
}

// A node of a drive without a disc opens only with O_NONBLOCK.
bool HasMedium(const std::string &node) {
    const int fd = open(node.c_str(), O_RDONLY | O_CLOEXEC);
    close(fd);
    return fd >= 0;
}

// Enumerates and compares each record with sysfs.
void ExpectEnumerated(size_t disks, size_t drives) {
    const std::vector<SysfsDevice> attached = Attached();
    ASSERT_EQ(disks + drives, attached.size());
    tDevInfo devs[DEV_MAX_DEVICES] = {};
    int count = -1;
    const std::string text = Capture([&] { count = Dev_Get(devs); });
    ASSERT_EQ(attached.size(), size_t(count)) << text;
    EXPECT_NE(std::string::npos, text.find("Found " + std::to_string(count) + " devices"));
    for (size_t i = 0; i < attached.size(); ++i) {
        const SysfsDevice &device = attached[i];
        const tDevInfo &found = devs[i];
        SCOPED_TRACE(device.node + " " + device.model);
        EXPECT_EQ(device.node, found.devPath);
        EXPECT_EQ(device.sgNode, found.sgPath);
        EXPECT_EQ(ModelOf(device), found.model);
        EXPECT_EQ(device.host, found.scsiAddr.host);
        EXPECT_EQ(device.channel, found.scsiAddr.channel);
        EXPECT_EQ(device.id, found.scsiAddr.id);
        EXPECT_EQ(device.lun, found.scsiAddr.lun);
        EXPECT_EQ(i >= disks ? 1 : 0, found.isOptical);
        EXPECT_EQ(device.type == 5 ? 1 : 0, found.isOptical);
        // The newer USB protocol names its host "uas", which is not among the names looked for.
        EXPECT_EQ(device.driver == "usb-storage" ? 1 : 0, found.busType) << device.driver;
        EXPECT_EQ(HasMedium(device.node) ? 1 : 0, found.ready);
        if (found.isOptical == 0) {
            EXPECT_EQ(device.bytes, found.u.disk.deviceBytes);
        }

        char name[DEV_NODE_NAME_SIZE];
        EXPECT_EQ(0, Dev_SgToSd(found.sgPath, name, sizeof name));
        EXPECT_EQ(device.node, name);
        EXPECT_EQ(0, Dev_SdToSg(found.devPath, name, sizeof name));
        EXPECT_EQ(device.sgNode, name);
    }
}

std::string Disk(const std::string &name, int number) {
    return R"("driver":"scsi-hd","bus":"scsi.0","drive":")" + name +
           R"(","vendor":"BRD-3 .","product":")" + name + R"(","scsi-id":)" +
           std::to_string(number);
}

// A disk of zeros without a file.
void PlugNumbered(Monitor &monitor, int number) {
    const std::string name = "DISK " + std::to_string(number);
    monitor.AddZeros("zeros" + std::to_string(number), 64 << 20);
    monitor.Plug("disk" + std::to_string(number),
                 R"("driver":"scsi-hd","bus":"scsi.0","drive":"zeros)" + std::to_string(number) +
                     R"(","vendor":"BRD-3 .","product":")" + name + R"(","scsi-id":)" +
                     std::to_string(number));
}

// On the AHCI controller a disk, a drive with a disc and one without.
TEST(Enumeration, FindsWhatIsAttachedWithItsBus) {
    NEEDS_EMULATED_BOARD();
    Monitor monitor;
    ExpectEnumerated(1, 2);

    monitor.AddFile("scsi0", "scsi0.img", false);
    monitor.Plug("disk0", Disk("scsi0", 1));
    AwaitDevice("scsi0");
    monitor.AddFile("dvd", "dvd.iso", true);
    monitor.Plug("drive0", R"("driver":"scsi-cd","bus":"scsi.0","drive":"dvd","scsi-id":3)");
    AwaitDevice("QEMU CD-ROM");
    monitor.Plug("drive1", R"("driver":"scsi-cd","bus":"scsi.0","product":"EMPTY","scsi-id":5)");
    AwaitDevice("EMPTY");
    ExpectEnumerated(2, 4);

    monitor.AddFile("usb0", "usb0.img", false);
    monitor.Plug(
        "stick0",
        R"("driver":"usb-storage","bus":"usb.0","port":"2","drive":"usb0","removable":true)");
    AwaitDevice("QEMU HARDDISK");
    monitor.AddFile("usb1", "usb1.img", false);
    monitor.Plug("uas", R"("driver":"usb-uas","bus":"usb.0","port":"3")");
    monitor.Plug("disk1",
                 R"("driver":"scsi-hd","bus":"uas.0","lun":0,"drive":"usb1","product":"UAS")");
    // Once it has its disk, it is plugged in.
    monitor.Run("qom-set",
                R"({"path":"/machine/peripheral/uas","property":"attached","value":true})");
    AwaitDevice("UAS");
    ExpectEnumerated(4, 4);

    tDevInfo devs[DEV_MAX_DEVICES] = {};
    int count = 0;
    Capture([&] { count = Dev_GetUSBFlashDevice(devs); });
    ASSERT_GE(count, 1);
    EXPECT_EQ(AwaitDevice("QEMU HARDDISK").node, devs[count - 1].devPath);
    EXPECT_EQ(1, devs[count - 1].busType);
}

TEST(Enumeration, FindsTwentyThreeAtOnce) {
    NEEDS_EMULATED_BOARD();
    Monitor monitor;
    for (int number = 0; number < 20; ++number) {
        PlugNumbered(monitor, number);
    }
    for (int number = 0; number < 20; ++number) {
        AwaitDevice("DISK " + std::to_string(number));
    }
    ExpectEnumerated(21, 2);
}

// What comes and goes while the walk is under way may be found or not; nothing else may happen.
TEST(Enumeration, GoesOnWhileDevicesComeAndGo) {
    NEEDS_EMULATED_BOARD();
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::thread plugging{[&] {
        Monitor monitor;
        while (!stop) {
            for (int number = 0; number < 4; ++number) {
                PlugNumbered(monitor, number);
                AwaitDevice("DISK " + std::to_string(number));
            }
            for (int number = 0; number < 4; ++number) {
                monitor.Pull("disk" + std::to_string(number));
                AwaitNoDevice("DISK " + std::to_string(number));
            }
            monitor.RemoveFiles();
            ++rounds;
        }
    }};
    for (int walk = 0; walk < 3; ++walk) {
        tDevInfo devs[DEV_MAX_DEVICES] = {};
        int count = -1;
        const std::string text = Capture([&] { count = Dev_Get(devs); });
        EXPECT_GE(count, 3) << text;
        EXPECT_LE(count, 7) << text;
        for (int i = 0; i < count; ++i) {
            EXPECT_NE('\0', devs[i].sgPath[0]) << text;
        }
    }
    stop = true;
    plugging.join();
    EXPECT_GT(rounds, 1);
    ExpectEnumerated(1, 2);
}

}  // namespace
