#ifndef TALVEK_TESTS_BOARD_SUPPORT_BOARD_H
#define TALVEK_TESTS_BOARD_SUPPORT_BOARD_H

#include <stdint.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "dev/device.h"

// What the emulated board has, for the tests that run only there.

namespace talvek::test {

// The value of a variable that board/init sets, empty elsewhere.
std::string BoardVariable(const char *pName);

// The node of the port to the emulator's side with this name, empty when there is none.
std::string BoardPort(const std::string &name);

// Waits until `holds` and returns whether it came true. The time, one minute, only bounds a
// failure.
bool Await(const std::function<bool()> &holds);

// An empty directory below /run, removed at the end.
class MountPoint {
  public:
    MountPoint();
    ~MountPoint();
    MountPoint(const MountPoint &) = delete;
    MountPoint &operator=(const MountPoint &) = delete;

    [[nodiscard]] const char *path() const { return path_; }
    // The type of what is mounted there, empty when nothing is.
    [[nodiscard]] std::string Type() const;

  private:
    char path_[32] = "/run/board-mount-XXXXXX";
};

// Skips a test where devices cannot be plugged in: on hardware of one's own, and when board/init
// did not start it.
#define NEEDS_EMULATED_BOARD()                                                               \
    if (::talvek::test::BoardPort("board.monitor").empty() ||                                \
        ::talvek::test::BoardVariable("BOARD_MEDIA").empty()) {                              \
        GTEST_SKIP() << "needs the emulated board, whose devices can be plugged in and out"; \
    }

// A SCSI device as sysfs shows it: what the kernel itself knows of it.
struct SysfsDevice {
    std::string dir;     // "/sys/devices/.../0:0:1:0"
    std::string node;    // "/dev/sda", "/dev/sr0"; empty without one
    std::string sgNode;  // "/dev/sg0"
    std::string vendor;  // as padded by the device
    std::string model;
    unsigned host, channel, id, lun;
    unsigned type;       // peripheral device type: 0 disk, 5 CD/DVD
    std::string driver;  // of its bus: "usb-storage", "ahci"
    uint64_t bytes;      // of a disk
    bool operator==(const SysfsDevice &) const = default;
};

// All of them, sorted by node.
std::vector<SysfsDevice> SysfsDevices();

// The one whose model holds `text`; nothing if there is none.
std::optional<SysfsDevice> SysfsDeviceOf(const std::string &text);

// Waits until a device whose model holds `text` has its nodes, and returns it; the test fails after
// a minute.
SysfsDevice AwaitDevice(const std::string &text);

// Waits until there is no such device.
void AwaitNoDevice(const std::string &text);

// What the entries for discs take of a drive with these nodes.
tDevInfo DriveRecord(const std::string &node, const std::string &sgNode);

}  // namespace talvek::test

#endif
