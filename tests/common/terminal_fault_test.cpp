#include <errno.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "common/terminal.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

tTermDevInfo Device() {
    tTermDevInfo device = {};
    device.fd = -1;
    device.direction = COM_TERM_READ_WRITE;
    device.speed = B9600;
    return device;
}

TEST(TerminalFault, KeepsNoDescriptorWhicheverCallFails) {
    int master = -1;
    int slave = -1;
    char name[64] = {};
    ASSERT_EQ(0, openpty(&master, &slave, name, nullptr, nullptr));
    int calls = 0;
    Capture([&] {
        calls = EveryCallFails(EIO, [&name] {
            tTermDevInfo device = Device();
            const int opened = COM_OpenTermDevice(name, &device);
            EXPECT_EQ(opened == COM_TERM_NOT_OPENED, device.fd < 0);
            const int closed = COM_CloseTermDevice(&device);
            EXPECT_TRUE(opened != COM_TERM_NOT_OPENED || closed == -1) << "nothing was open";
            EXPECT_EQ(-1, device.fd);
        });
    });
    EXPECT_GT(calls, 6);
    close(master);
    close(slave);
}

TEST(TerminalFault, ReportsEachFailureOfTheLine) {
    int master = -1;
    int slave = -1;
    char name[64] = {};
    ASSERT_EQ(0, openpty(&master, &slave, name, nullptr, nullptr));
    const struct {
        const char *pCall;
        int result;
    } failures[] = {{"tcgetattr", COM_TERM_NOT_SET}, {"tcsetattr", COM_TERM_NOT_SET}};
    for (const auto &failure : failures) {
        tTermDevInfo device = Device();
        const std::string output = Capture([&] {
            const Fault fault{failure.pCall, 0, EIO};
            EXPECT_EQ(failure.result, COM_OpenTermDevice(name, &device));
        });
        EXPECT_NE(std::string::npos,
                  output.find(std::string{"COM_OpenTermDevice(): "} + failure.pCall + "(" + name +
                              ") error : Input/output error\n"))
            << output;
        EXPECT_GE(device.fd, 0);
        const std::string closing = Capture([&] {
            const Fault fault{"tcsetattr", 0, EIO};
            const int expected = device.saved_valid == 1 ? -1 : 0;
            EXPECT_EQ(expected, COM_CloseTermDevice(&device));
        });
        EXPECT_EQ(strcmp(failure.pCall, "tcgetattr") == 0, closing.empty()) << closing;
        EXPECT_EQ(-1, device.fd);
    }
    close(master);
    close(slave);
}

TEST(TerminalFault, ClosesTheTableOfAdaptersWhicheverCallFails) {
    RunInPrivateWorld(
        kMounts,
        [] {
            // /proc itself stays: EveryCallFails counts descriptors there.
            MountTmpfs("/proc/tty");
            ASSERT_EQ(0, mkdir("/proc/tty/driver", 0755));
            WriteFile("/proc/tty/driver/usb-serial", "6: x-1.3\n");
            MountTmpfs("/dev");
            int calls = 0;
            Capture([&] {
                calls = EveryCallFails(EIO, [] {
                    char path[COM_SERIAL_PATH_SIZE] = "";
                    COM_GetSerialPort(COM_SERIAL_USB_2, path);
                });
            });
            EXPECT_GE(calls, 4);
        },
        true);
}

}  // namespace
