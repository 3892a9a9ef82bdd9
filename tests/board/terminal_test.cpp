// The board's serial line, virtual consoles and USB serial adapters, each with something at its
// other end.

#include "common/terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "board/support/board.h"
#include "support/capture.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

constexpr int32_t kReadWrite = 2;

struct Opened {
    explicit Opened(const std::string &path, bool raw) {
        info.direction = kReadWrite;
        info.speed = B115200;
        if (raw) {
            info.use_given_flags = 1;
            info.current.c_cflag = CS8 | CREAD | CLOCAL;
        }
        Capture([&] { EXPECT_EQ(0, COM_OpenTermDevice(path.c_str(), &info)) << path; });
    }
    ~Opened() {
        Capture([&] { EXPECT_EQ(0, COM_CloseTermDevice(&info)); });
    }
    tTermDevInfo info = {};
};

std::string ReadLine(int fd) {
    std::string text;
    char byte;
    struct pollfd item = {fd, POLLIN, 0};
    while (poll(&item, 1, 60000) == 1 && read(fd, &byte, 1) == 1) {
        text += byte;
        if (byte == '\n') {
            break;
        }
    }
    return text;
}

// A pair of devices that are joined by a cable.
void ExpectJoined(const std::string &one, const std::string &other, bool hasSpeed) {
    SCOPED_TRACE(one + " " + other);
    struct termios before = {};
    {
        Opened a{one, true};
        Opened b{other, true};
        before = a.info.saved;
        EXPECT_EQ(0U, a.info.current.c_lflag);
        EXPECT_EQ(speed_t{B115200}, cfgetospeed(&a.info.current));
        for (const std::string text : {"from one to the other\n", "again, with \x01\x7F\xFF\n"}) {
            EXPECT_EQ(ssize_t(text.size()), write(a.info.fd, text.data(), text.size()));
            EXPECT_EQ(text, ReadLine(b.info.fd));
            EXPECT_EQ(ssize_t(text.size()), write(b.info.fd, text.data(), text.size()));
            EXPECT_EQ(text, ReadLine(a.info.fd));
        }
    }
    {
        Opened a{one, false};
        struct termios set = {};
        EXPECT_EQ(0, tcgetattr(a.info.fd, &set));
        EXPECT_EQ(0x500U, set.c_iflag);
        EXPECT_EQ(0x5U, set.c_oflag);
        EXPECT_EQ(0xCB0U, set.c_cflag & ~tcflag_t{CBAUD});
        EXPECT_EQ(0x823BU, set.c_lflag);
        if (hasSpeed) {
            EXPECT_EQ(speed_t{B115200}, cfgetospeed(&set));
        }
        EXPECT_EQ(before.c_lflag, a.info.saved.c_lflag) << "the setting was put back";
        EXPECT_EQ(before.c_iflag, a.info.saved.c_iflag);
        EXPECT_EQ(before.c_oflag, a.info.saved.c_oflag);
    }
}

TEST(SerialLine, OfTwoUsbAdaptersCarriesBytesBothWays) {
    NEEDS_EMULATED_BOARD();
    ExpectJoined("/dev/ttyUSB0", "/dev/ttyUSB1", true);
}

// A console of this kind keeps the speed that it began with.
TEST(SerialLine, OfTwoVirtualConsolesCarriesBytesBothWays) {
    NEEDS_EMULATED_BOARD();
    ExpectJoined("/dev/hvc0", "/dev/hvc1", false);
}

// The emulator writes what the board's own line sends into a file.
TEST(SerialLine, OfTheBoardSends) {
    NEEDS_EMULATED_BOARD();
    Opened line{"/dev/ttyAMA0", true};
    const std::string text = "COM_OpenTermDevice was here\n";
    EXPECT_EQ(ssize_t(text.size()), write(line.info.fd, text.data(), text.size()));
    EXPECT_TRUE(
        Await([&] { return ReadFile("/board/console.log").find(text) != std::string::npos; }));
}

// The adapters are in ports 1.1 and 1.3 of the USB bus.
TEST(SerialPort, IsFoundByTheUsbPortOfItsAdapter) {
    NEEDS_EMULATED_BOARD();
    const auto port = [](int number) {
        char path[32] = "unchanged";
        int result = 1;
        const std::string text = Capture([&] { result = COM_GetSerialPort(number, path); });
        EXPECT_EQ(std::string{path} == "unchanged" ? -1 : 0, result) << text;
        return std::string{path};
    };
    EXPECT_EQ("/dev/ttyS2", port(1));
    EXPECT_EQ("/dev/ttyUSB1", port(2)) << ReadFile("/proc/tty/driver/usb-serial");
    EXPECT_EQ("unchanged", port(3));
    EXPECT_EQ("/dev/ttyUSB0", port(4));
    EXPECT_EQ("unchanged", port(5));
    // Nodes are made where there are none.
    EXPECT_EQ(0, unlink("/dev/ttyUSB1"));
    EXPECT_EQ("/dev/ttyUSB1", port(2));
    EXPECT_GE(open("/dev/ttyUSB1", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC), 0);
}

}  // namespace
