#include "common/terminal.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/clock.h"
#include "support/canary.h"
#include "support/capture.h"
#include "support/interruptions.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

// A terminal pair: a setting of the device can be read on the other side.
class Pty {
  public:
    Pty() {
        int slave = -1;
        EXPECT_EQ(0, openpty(&master_, &slave, name_, nullptr, nullptr));
        slave_ = slave;  // stays open, so that the setting outlives a close of the device
    }
    ~Pty() {
        close(slave_);
        close(master_);
    }
    Pty(const Pty &) = delete;
    Pty &operator=(const Pty &) = delete;

    [[nodiscard]] const char *name() const { return name_; }
    [[nodiscard]] int master() const { return master_; }
    [[nodiscard]] struct termios Setting() const {
        struct termios setting = {};
        EXPECT_EQ(0, tcgetattr(master_, &setting));
        return setting;
    }

  private:
    int master_ = -1;
    int slave_ = -1;
    char name_[64] = {};
};

tTermDevInfo Device(int direction, speed_t speed) {
    tTermDevInfo device = {};
    device.fd = -1;
    device.direction = direction;
    device.speed = speed;
    return device;
}

TEST(OpenTermDevice, SetsTheBoardsLine) {
    const Pty pty;
    const struct termios before = pty.Setting();
    tTermDevInfo device = Device(COM_TERM_READ_WRITE, B9600);
    const int64_t start = talvek::MonotonicMs();
    const Lines log = CaptureLog([&] { EXPECT_EQ(0, COM_OpenTermDevice(pty.name(), &device)); });
    EXPECT_GE(talvek::MonotonicMs() - start, 500);
    EXPECT_EQ((Lines{"COMMON:COM_OpenTermDevice(): Using default termios flags setting:",
                     "COMMON:COM_OpenTermDevice(): c_iflag: 0x500, c_oflag: 0x5, c_cflag: 0xCB0, "
                     "c_lflag: 0x823B"}),
              log);
    EXPECT_STREQ(pty.name(), device.path);
    EXPECT_EQ(1, device.saved_valid);
    EXPECT_EQ(before.c_iflag, device.saved.c_iflag);
    EXPECT_EQ(before.c_lflag, device.saved.c_lflag);
    EXPECT_EQ(0, memcmp(before.c_cc, device.saved.c_cc, sizeof before.c_cc));

    const struct termios now = pty.Setting();
    EXPECT_EQ(0x500U, now.c_iflag);
    EXPECT_EQ(0x5U, now.c_oflag);
    EXPECT_EQ(0xCB0U | B9600, now.c_cflag);
    EXPECT_EQ(0x823BU, now.c_lflag);
    EXPECT_EQ(static_cast<speed_t>(B9600), cfgetospeed(&now));
    EXPECT_EQ(static_cast<speed_t>(B9600), cfgetispeed(&now));

    ASSERT_GE(device.fd, 0);
    const int flags = fcntl(device.fd, F_GETFL);
    EXPECT_EQ(O_RDWR, flags & O_ACCMODE);
    EXPECT_TRUE(flags & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(device.fd, F_GETFD));
    EXPECT_EQ(0, COM_CloseTermDevice(&device));
}

TEST(OpenTermDevice, SetsEveryControlCharacter) {
    const Pty pty;
    tTermDevInfo device = Device(COM_TERM_READ_WRITE, B38400);
    Capture([&] { EXPECT_EQ(0, COM_OpenTermDevice(pty.name(), &device)); });
    const struct termios now = pty.Setting();
    const int expected[][2] = {
        {VINTR, 3},     {VQUIT, 28},    {VERASE, 127}, {VKILL, 21},  {VEOF, 4},   {VTIME, 0},
        {VMIN, 1},      {VSWTC, 0},     {VSTART, 17},  {VSTOP, 19},  {VSUSP, 26}, {VEOL, 0},
        {VREPRINT, 18}, {VDISCARD, 15}, {VWERASE, 23}, {VLNEXT, 22}, {VEOL2, 0}};
    for (const auto &[index, value] : expected) {
        EXPECT_EQ(value, now.c_cc[index]) << "index " << index;
    }
    COM_CloseTermDevice(&device);
}

TEST(OpenTermDevice, KeepsTheCallersFlagWords) {
    const Pty pty;
    tTermDevInfo device = Device(COM_TERM_READ_WRITE, B115200);
    device.use_given_flags = COM_TERM_GIVEN_FLAGS;
    device.current.c_iflag = IGNBRK | IXOFF;
    device.current.c_oflag = 0;
    device.current.c_cflag = CS8 | CREAD | CSTOPB;
    device.current.c_lflag = ISIG;
    EXPECT_EQ("", Capture([&] { EXPECT_EQ(0, COM_OpenTermDevice(pty.name(), &device)); }));
    const struct termios now = pty.Setting();
    EXPECT_EQ(static_cast<tcflag_t>(IGNBRK | IXOFF), now.c_iflag);
    EXPECT_EQ(0U, now.c_oflag);
    EXPECT_EQ(static_cast<tcflag_t>(CS8 | CREAD | CSTOPB | B115200), now.c_cflag);
    EXPECT_EQ(static_cast<tcflag_t>(ISIG), now.c_lflag);
    EXPECT_EQ(3, now.c_cc[VINTR]) << "the control characters are set in any case";
    COM_CloseTermDevice(&device);
}

TEST(OpenTermDevice, UsesTheDefaultFlagsForAnyOtherValue) {
    const Pty pty;
    tTermDevInfo device = Device(COM_TERM_READ_WRITE, B9600);
    device.use_given_flags = 2;
    device.current.c_lflag = ISIG;
    Capture([&] { EXPECT_EQ(0, COM_OpenTermDevice(pty.name(), &device)); });
    EXPECT_EQ(0x823BU, pty.Setting().c_lflag);
    COM_CloseTermDevice(&device);
}

TEST(OpenTermDevice, OpensReadOnlyForAnUnknownDirection) {
    for (const int direction : {3, 5, -1}) {
        const Pty pty;
        tTermDevInfo device = Device(direction, B9600);
        const Lines log =
            CaptureLog([&] { EXPECT_EQ(0, COM_OpenTermDevice(pty.name(), &device)); });
        ASSERT_FALSE(log.empty());
        EXPECT_EQ("COMMON:COM_OpenTermDevice(): pDevInfo->direction = " +
                      std::to_string(direction) + ", use default O_RDONLY",
                  log[0]);
        EXPECT_EQ(COM_TERM_READ_ONLY, device.direction);
        EXPECT_EQ(O_RDONLY, fcntl(device.fd, F_GETFL) & O_ACCMODE);
        COM_CloseTermDevice(&device);
    }
}

TEST(OpenTermDevice, UsesTheDirectionAsAccessMode) {
    for (const int direction : {COM_TERM_READ_ONLY, COM_TERM_WRITE_ONLY, COM_TERM_READ_WRITE}) {
        const Pty pty;
        tTermDevInfo device = Device(direction, B9600);
        Capture([&] { EXPECT_EQ(0, COM_OpenTermDevice(pty.name(), &device)); });
        EXPECT_EQ(direction, fcntl(device.fd, F_GETFL) & O_ACCMODE);
        COM_CloseTermDevice(&device);
    }
}

TEST(OpenTermDevice, DiscardsPendingInput) {
    const Pty pty;
    ASSERT_EQ(6, write(pty.master(), "input\n", 6));
    tTermDevInfo device = Device(COM_TERM_READ_WRITE, B9600);
    Capture([&] { EXPECT_EQ(0, COM_OpenTermDevice(pty.name(), &device)); });
    int waiting = -1;
    EXPECT_EQ(0, ioctl(device.fd, FIONREAD, &waiting));
    EXPECT_EQ(0, waiting);
    COM_CloseTermDevice(&device);
}

TEST(OpenTermDevice, ReportsAMissingDevice) {
    tTermDevInfo device = Device(COM_TERM_READ_WRITE, B9600);
    device.fd = 7;
    const Lines log = CaptureLog(
        [&] { EXPECT_EQ(COM_TERM_NOT_OPENED, COM_OpenTermDevice("/nowhere/tty", &device)); });
    EXPECT_EQ((Lines{"COMMON:COM_OpenTermDevice(): open(/nowhere/tty) failed : No such file or "
                     "directory"}),
              log);
    EXPECT_LT(device.fd, 0);
}

TEST(OpenTermDevice, FailsOnNull) {
    tTermDevInfo device = Device(COM_TERM_READ_WRITE, B9600);
    device.fd = 7;
    EXPECT_EQ((Lines{"COMMON:COM_OpenTermDevice(): open((null)) failed : Bad address"}),
              CaptureLog([&] {
                  EXPECT_EQ(COM_TERM_NOT_OPENED, COM_OpenTermDevice(nullptr, &device));
                  EXPECT_EQ(COM_TERM_NOT_OPENED, COM_OpenTermDevice("/dev/null", nullptr));
              }));
    EXPECT_LT(device.fd, 0);
}

// 9600 is the number of bits a second; B9600 is 13.
TEST(OpenTermDevice, RefusesASpeedThatIsNoConstant) {
    const Pty pty;
    const struct termios before = pty.Setting();
    for (const speed_t speed : {9600U, 0x0FFFU, ~0U}) {
        tTermDevInfo device = Device(COM_TERM_READ_WRITE, speed);
        const Lines log = CaptureLog(
            [&] { EXPECT_EQ(COM_TERM_NOT_SET, COM_OpenTermDevice(pty.name(), &device)); });
        ASSERT_EQ(3U, log.size());
        EXPECT_EQ("COMMON:COM_OpenTermDevice(): cfsetospeed(" + std::string{pty.name()} + ", " +
                      std::to_string(speed) + ") error : Invalid argument",
                  log[2]);
        const struct termios now = pty.Setting();
        EXPECT_EQ(before.c_cflag, now.c_cflag) << "the line is unchanged";
        EXPECT_EQ(before.c_lflag, now.c_lflag);
        EXPECT_GE(device.fd, 0);
        EXPECT_EQ(0, COM_CloseTermDevice(&device));
    }
}

// Reading and applying the setting both fail, and both failures are logged.
TEST(OpenTermDevice, LeavesADeviceOpenThatHasNoSetting) {
    tTermDevInfo device = Device(COM_TERM_READ_WRITE, B9600);
    const Lines log =
        CaptureLog([&] { EXPECT_EQ(COM_TERM_NOT_SET, COM_OpenTermDevice("/dev/null", &device)); });
    ASSERT_EQ(4U, log.size());
    EXPECT_EQ(
        "COMMON:COM_OpenTermDevice(): tcgetattr(/dev/null) error : Inappropriate ioctl for "
        "device",
        log[0]);
    EXPECT_EQ(
        "COMMON:COM_OpenTermDevice(): tcsetattr(/dev/null) error : Inappropriate ioctl for "
        "device",
        log[3]);
    EXPECT_GE(device.fd, 0);
    EXPECT_EQ(0, device.saved_valid);
    EXPECT_EQ(0, COM_CloseTermDevice(&device)) << "nothing was saved, so nothing is restored";
    EXPECT_EQ(-1, device.fd);
}

TEST(OpenTermDevice, CutsALongPathInTheRecordOnly) {
    RunInPrivateWorld(kMounts, [] {
        const Pty pty;
        const std::string path = "/tmp/" + std::string(75, 'd');  // 80 characters
        ASSERT_EQ(0, mount("tmpfs", "/tmp", "tmpfs", 0, nullptr));
        ASSERT_EQ(0, symlink(pty.name(), path.c_str()));
        tTermDevInfo device = Device(COM_TERM_READ_WRITE, B9600);
        Capture([&] { EXPECT_EQ(0, COM_OpenTermDevice(path.c_str(), &device)); });
        EXPECT_EQ(path.substr(0, 79), device.path);
        EXPECT_GE(device.fd, 0);
        COM_CloseTermDevice(&device);
    });
}

TEST(OpenTermDevice, AcceptsThePathOfTheRecord) {
    const Pty pty;
    tTermDevInfo device = Device(COM_TERM_READ_WRITE, B9600);
    snprintf(device.path, sizeof device.path, "%s", pty.name());
    Capture([&] { EXPECT_EQ(0, COM_OpenTermDevice(device.path, &device)); });
    EXPECT_STREQ(pty.name(), device.path);
    COM_CloseTermDevice(&device);
}

// A session without a terminal takes the first one that it opens, unless O_NOCTTY is set.
TEST(OpenTermDevice, DoesNotBecomeTheControllingTerminal) {
    const Pty pty;
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        setsid();
        tTermDevInfo device = Device(COM_TERM_READ_WRITE, B9600);
        Capture([&] { COM_OpenTermDevice(pty.name(), &device); });
        const bool taken = open("/dev/tty", O_RDWR | O_CLOEXEC) != -1;
        _exit(device.fd >= 0 && !taken && errno == ENXIO ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
}

TEST(OpenTermDevice, WaitsItsHalfSecondWhateverSignalsArrive) {
    const Pty pty;
    const Interruptions often{100};
    tTermDevInfo device = Device(COM_TERM_READ_WRITE, B9600);
    const int64_t start = talvek::MonotonicMs();
    Capture([&] { COM_OpenTermDevice(pty.name(), &device); });
    EXPECT_GE(talvek::MonotonicMs() - start, 500);
    COM_CloseTermDevice(&device);
}

TEST(CloseTermDevice, RestoresTheSavedSetting) {
    const Pty pty;
    const struct termios before = pty.Setting();
    tTermDevInfo device = Device(COM_TERM_READ_WRITE, B9600);
    Capture([&] { EXPECT_EQ(0, COM_OpenTermDevice(pty.name(), &device)); });
    EXPECT_NE(before.c_cflag, pty.Setting().c_cflag);
    EXPECT_EQ("", Capture([&] { EXPECT_EQ(0, COM_CloseTermDevice(&device)); }));
    const struct termios after = pty.Setting();
    EXPECT_EQ(before.c_iflag, after.c_iflag);
    EXPECT_EQ(before.c_oflag, after.c_oflag);
    EXPECT_EQ(before.c_cflag, after.c_cflag);
    EXPECT_EQ(before.c_lflag, after.c_lflag);
    EXPECT_EQ(0, memcmp(before.c_cc, after.c_cc, sizeof before.c_cc));
    EXPECT_EQ(-1, device.fd);
    EXPECT_EQ(-1, COM_CloseTermDevice(&device)) << "nothing is open";
    EXPECT_EQ(-1, COM_CloseTermDevice(nullptr));
}

TEST(TermFlagTables, HoldTheNamesInOrderAndTheKernelsValues) {
    const struct {
        const tTermFlag *pTable;
        std::vector<std::pair<uint32_t, const char *>> rows;
    } tables[] = {
        // Values of asm-generic/termbits.h.
        {COM_TermInputFlags,
         {{01, "IGNBRK"},
          {02, "BRKINT"},
          {04, "IGNPAR"},
          {010, "PARMRK"},
          {020, "INPCK"},
          {040, "ISTRIP"},
          {0100, "INLCR"},
          {0200, "IGNCR"},
          {0400, "ICRNL"},
          {01000, "IUCLC"},
          {02000, "IXON"},
          {04000, "IXANY"},
          {010000, "IXOFF"},
          {020000, "IMAXBEL"}}},
        {COM_TermOutputFlags,
         {{01, "OPOST"},
          {02, "OLCUC"},
          {04, "ONLCR"},
          {010, "OCRNL"},
          {020, "ONOCR"},
          {040, "ONLRET"},
          {0100, "OFILL"},
          {0200, "OFDEL"},
          {0400, "NLDLY"},
          {03000, "CRDLY"},
          {014000, "TABDLY"},
          {020000, "BSDLY"},
          {040000, "VTDLY"},
          {0100000, "FFDLY"}}},
        {COM_TermControlFlags,
         {{0, "B0"},          {1, "B50"},          {2, "B75"},          {3, "B110"},
          {4, "B134"},        {5, "B150"},         {6, "B200"},         {7, "B300"},
          {8, "B600"},        {9, "B1200"},        {10, "B1800"},       {11, "B2400"},
          {12, "B4800"},      {13, "B9600"},       {14, "B19200"},      {15, "B38400"},
          {010001, "B57600"}, {010002, "B115200"}, {010003, "B230400"}, {060, "CSIZE"},
          {0100, "CSTOPB"},   {0200, "CREAD"},     {0400, "PARENB"},    {01000, "PARODD"},
          {02000, "HUPCL"},   {04000, "CLOCAL"}}},
        {COM_TermLocalFlags,
         {{01, "ISIG"},
          {02, "ICANON"},
          {04, "XCASE"},
          {010, "ECHO"},
          {020, "ECHOE"},
          {040, "ECHOK"},
          {0100, "ECHONL"},
          {01000, "ECHOCTL"},
          {0200, "NOFLSH"},
          {0400, "TOSTOP"},
          {0100000, "IEXTEN"}}},
        {COM_TermControlChars,
         {{0, "VINTR"},
          {1, "VQUIT"},
          {2, "VERASE"},
          {3, "VKILL"},
          {6, "VMIN"},
          {5, "VTIME"},
          {16, "VEOL2"},
          {7, "VSWTC"},
          {8, "VSTART"},
          {9, "VSTOP"},
          {10, "VSUSP"},
          {12, "VREPRINT"},
          {13, "VDISCARD"},
          {14, "VWERASE"},
          {15, "VLNEXT"},
          {4, "VEOF"},
          {11, "VEOL"}}},
    };
    for (const auto &table : tables) {
        const tTermFlag *pRow = table.pTable;
        for (const auto &[value, name] : table.rows) {
            EXPECT_EQ(value, pRow->value) << name;
            EXPECT_STREQ(name, pRow->name);
            ++pRow;
        }
        EXPECT_STREQ("", pRow->name);
    }
}

TEST(PrintTermFlags, ListsEverySubsetOfTheWord) {
    int result = 0;
    EXPECT_EQ(
        " c_cflag = [0xCBD] : [B0] [B50] [B134] [B150] [B600] [B1200] [B4800] [B9600] [CSIZE]"
        " [CREAD] [HUPCL] [CLOCAL]\n",
        Capture([&] { result = COM_PrintTermFlags(" c_cflag", 0xCBD, COM_TermControlFlags); }));
    EXPECT_EQ('\n', result);
}

TEST(PrintTermFlags, ListsNothingOfAnEmptyWordButTheZeroSpeed) {
    EXPECT_EQ("i = [0x0] :\n", Capture([] { COM_PrintTermFlags("i", 0, COM_TermInputFlags); }));
    EXPECT_EQ("c = [0x0] : [B0]\n",
              Capture([] { COM_PrintTermFlags("c", 0, COM_TermControlFlags); }));
    EXPECT_EQ("n = [0xFFFFFFFF] :\n", Capture([] { COM_PrintTermFlags("n", ~0U, nullptr); }));
    EXPECT_EQ("(null) = [0x1] :\n", Capture([] { COM_PrintTermFlags(nullptr, 1, nullptr); }));
}

// A field of two bits is not listed for one of them.
TEST(PrintTermFlags, NeedsAllBitsOfAField) {
    EXPECT_EQ("o = [0x200] :\n",
              Capture([] { COM_PrintTermFlags("o", 01000, COM_TermOutputFlags); }));
    EXPECT_EQ("o = [0x600] : [CRDLY]\n",
              Capture([] { COM_PrintTermFlags("o", 03000, COM_TermOutputFlags); }));
}

TEST(DumpTermios, PrintsTheWholeSetting) {
    struct termios setting = {};
    setting.c_iflag = 0x500;
    setting.c_oflag = 0x5;
    setting.c_cflag = 0xCB0;
    setting.c_lflag = 0x823B;
    for (int i = 0; i < 32; ++i) {
        setting.c_cc[i] = static_cast<cc_t>(100 + i);
    }
    const char *names[32] = {"VINTR",    "VQUIT",    "VERASE",  "VKILL",  "VEOF",  "VTIME",
                             "VMIN",     "VSWTC",    "VSTART",  "VSTOP",  "VSUSP", "VEOL",
                             "VREPRINT", "VDISCARD", "VWERASE", "VLNEXT", "VEOL2"};
    std::string expected =
        " c_iflag = [0x500] : [ICRNL] [IXON]\n"
        " c_oflag = [0x5] : [OPOST] [ONLCR]\n"
        " c_cflag = [0xCB0] : [B0] [CSIZE] [CREAD] [HUPCL] [CLOCAL]\n"
        " c_lflag = [0x823B] : [ISIG] [ICANON] [ECHO] [ECHOE] [ECHOK] [ECHOCTL] [IEXTEN]\n";
    for (int i = 0; i < 32; ++i) {
        char line[64];
        snprintf(line, sizeof line, " [%02d/32] c_cc[%s] = %d\n", i,
                 names[i] != nullptr ? names[i] : "unknown", 100 + i);
        expected += line;
    }
    expected += "======\n";

    int result = EOF;
    const std::string output = Capture([&] { result = COM_DumpTermios("Title", &setting); });
    EXPECT_GE(result, 0);
    const size_t head = output.find(": Title\n======\n");
    ASSERT_NE(std::string::npos, head) << output;
    EXPECT_EQ(0U, output.find("COMMON,"));
    EXPECT_EQ(std::string::npos, output.find("()"));
    EXPECT_EQ(expected, output.substr(head + strlen(": Title\n======\n")));
    EXPECT_EQ(0U, Capture([] { EXPECT_EQ(EOF, COM_DumpTermios("none", nullptr)); }).size());
    EXPECT_NE(std::string::npos,
              Capture([&] { COM_DumpTermios(nullptr, &setting); }).find(": (null)\n======\n"));
}

// Replaces /proc/tty/driver, and /dev, where nodes are made.
void InBoardWorld(const std::function<void()> &body) {
    RunInPrivateWorld(
        kMounts,
        [&body] {
            ReplaceDir("/proc");
            ASSERT_EQ(0, mkdir("/proc/tty", 0755));
            ASSERT_EQ(0, mkdir("/proc/tty/driver", 0755));
            ReplaceDir("/dev");
            body();
        },
        true);
}

constexpr char kTable[] =
    "usbserinfo:1.0 driver:2.0\n"
    "0: module:ftdi_sio name:\"FTDI\" vendor:0403 product:6001 num_ports:1 port:0 "
    "path:usb-musb-hdrc.1-1.3\n"
    "1: module:pl2303 name:\"pl2303\" vendor:067b product:2303 num_ports:1 port:0 "
    "path:usb-musb-hdrc.1-1.4\n"
    "12: module:pl2303 name:\"pl2303\" vendor:067b product:2303 num_ports:1 port:0 "
    "path:usb-musb-hdrc.1-1.1\n";

TEST(GetSerialPort, NamesTheOnBoardPort) {
    CanaryBuf path{COM_SERIAL_PATH_SIZE};
    EXPECT_EQ(0, COM_GetSerialPort(COM_SERIAL_ON_BOARD, path.text()));
    EXPECT_STREQ("/dev/ttyS2", path.text());
    EXPECT_TRUE(path.UntouchedFrom(sizeof "/dev/ttyS2"));
    EXPECT_EQ(-1, COM_GetSerialPort(0, path.text()));
    EXPECT_EQ(-1, COM_GetSerialPort(COM_SERIAL_ON_BOARD, nullptr));
}

TEST(GetSerialPort, RefusesOtherNumbers) {
    for (const int port : {5, -1, 1000}) {
        CanaryBuf path{COM_SERIAL_PATH_SIZE};
        EXPECT_EQ((Lines{"COMMON:COM_GetSerialPort(): Un-support idx = " + std::to_string(port)}),
                  CaptureLog([&] { EXPECT_EQ(-1, COM_GetSerialPort(port, path.text())); }));
        EXPECT_TRUE(path.UntouchedFrom(0));
    }
}

TEST(GetSerialPort, FindsAdaptersByTheirUsbPort) {
    InBoardWorld([] {
        WriteFile("/proc/tty/driver/usb-serial", kTable);
        const struct {
            int port;
            const char *pPath;
            unsigned minor;
        } expected[] = {{COM_SERIAL_USB_2, "/dev/ttyUSB0", 0},
                        {COM_SERIAL_USB_3, "/dev/ttyUSB1", 1},
                        {COM_SERIAL_USB_4, "/dev/ttyUSB12", 12}};
        umask(0);
        for (const auto &adapter : expected) {
            CanaryBuf path{COM_SERIAL_PATH_SIZE};
            EXPECT_EQ("",
                      Capture([&] { EXPECT_EQ(0, COM_GetSerialPort(adapter.port, path.text())); }));
            EXPECT_STREQ(adapter.pPath, path.text());
            struct stat node = {};
            ASSERT_EQ(0, stat(adapter.pPath, &node)) << adapter.pPath;
            EXPECT_TRUE(S_ISCHR(node.st_mode));
            EXPECT_EQ(0664U, node.st_mode & 07777);
            EXPECT_EQ(makedev(188, adapter.minor), node.st_rdev);
        }
    });
}

// The device number is 188 * 256 + the adapter's number, so adapter 300 has the major number 189.
TEST(GetSerialPort, AddsTheAdaptersNumberTo188Times256) {
    InBoardWorld([] {
        WriteFile("/proc/tty/driver/usb-serial", "300: x-1.3\n");
        char path[COM_SERIAL_PATH_SIZE] = "";
        EXPECT_EQ(0, COM_GetSerialPort(COM_SERIAL_USB_2, path));
        EXPECT_STREQ("/dev/ttyUSB300", path);
        struct stat node = {};
        ASSERT_EQ(0, stat("/dev/ttyUSB300", &node));
        EXPECT_EQ(dev_t{188 * 256 + 300}, node.st_rdev);
    });
}

// Port 3 has two USB ports; the first line of the table decides.
TEST(GetSerialPort, TakesEitherUsbPortOfPortThree) {
    InBoardWorld([] {
        char path[COM_SERIAL_PATH_SIZE] = "";
        WriteFile("/proc/tty/driver/usb-serial", "7: a-1.2\n8: a-1.4\n");
        EXPECT_EQ(0, COM_GetSerialPort(COM_SERIAL_USB_3, path));
        EXPECT_STREQ("/dev/ttyUSB7", path);
        WriteFile("/proc/tty/driver/usb-serial", "8: a-1.4\n7: a-1.2\n");
        EXPECT_EQ(0, COM_GetSerialPort(COM_SERIAL_USB_3, path));
        EXPECT_STREQ("/dev/ttyUSB8", path);
    });
}

TEST(GetSerialPort, ReadsTheOlderTableWhenTheNewerIsMissing) {
    InBoardWorld([] {
        char path[COM_SERIAL_PATH_SIZE] = "";
        WriteFile("/proc/tty/driver/usbserial", "3: path-1.1\n");
        EXPECT_EQ("", Capture([&] { EXPECT_EQ(0, COM_GetSerialPort(COM_SERIAL_USB_4, path)); }));
        EXPECT_STREQ("/dev/ttyUSB3", path);
        WriteFile("/proc/tty/driver/usb-serial", "4: path-1.1\n");
        EXPECT_EQ(0, COM_GetSerialPort(COM_SERIAL_USB_4, path));
        EXPECT_STREQ("/dev/ttyUSB4", path);
    });
}

TEST(GetSerialPort, ReportsThatBothTablesAreMissing) {
    InBoardWorld([] {
        CanaryBuf path{COM_SERIAL_PATH_SIZE};
        EXPECT_EQ(
            (Lines{"COMMON:COM_GetSerialPort(): open(/proc/tty/driver/usb-serial, "
                   "/proc/tty/driver/usbserial) failed! : No such file or directory"}),
            CaptureLog([&] { EXPECT_EQ(-1, COM_GetSerialPort(COM_SERIAL_USB_2, path.text())); }));
        EXPECT_TRUE(path.UntouchedFrom(0));
    });
}

TEST(GetSerialPort, ReportsAnyOtherFailureOfEitherTable) {
    InBoardWorld([] {
        char path[COM_SERIAL_PATH_SIZE] = "";
        // A link to itself exists but cannot be opened.
        ASSERT_EQ(0, symlink("usbserial", "/proc/tty/driver/usbserial"));
        EXPECT_EQ((Lines{"COMMON:COM_GetSerialPort(): open(/proc/tty/driver/usbserial) failed! : "
                         "Too many levels of symbolic links"}),
                  CaptureLog([&] { EXPECT_EQ(-1, COM_GetSerialPort(COM_SERIAL_USB_2, path)); }));
        ASSERT_EQ(0, symlink("usb-serial", "/proc/tty/driver/usb-serial"));
        EXPECT_EQ((Lines{"COMMON:COM_GetSerialPort(): open(/proc/tty/driver/usb-serial) failed! : "
                         "Too many levels of symbolic links"}),
                  CaptureLog([&] { EXPECT_EQ(-1, COM_GetSerialPort(COM_SERIAL_USB_2, path)); }));
    });
}

TEST(GetSerialPort, SkipsLinesOfOtherPorts) {
    InBoardWorld([] {
        CanaryBuf path{COM_SERIAL_PATH_SIZE};
        WriteFile("/proc/tty/driver/usb-serial",
                  "usbserinfo 1.1\n0: x-1.10\n1: x-11.1\n2: x-1.1 \n3: x-1.1-2.3\n\n-\n");
        EXPECT_EQ(
            "", Capture([&] { EXPECT_EQ(-1, COM_GetSerialPort(COM_SERIAL_USB_4, path.text())); }));
        EXPECT_TRUE(path.UntouchedFrom(0));
    });
}

// A line is read in pieces of at most 255 characters, each a line of its own.
TEST(GetSerialPort, ReadsLinesOf255Characters) {
    InBoardWorld([] {
        const std::string head = "5: ";
        const std::string tail = "-1.3";
        for (const size_t length : {254, 255, 256}) {  // without the newline
            const std::string line =
                head + std::string(length - head.size() - tail.size(), 'x') + tail + "\n";
            WriteFile("/proc/tty/driver/usb-serial", line);
            char path[COM_SERIAL_PATH_SIZE] = "";
            EXPECT_EQ(length > 255 ? -1 : 0, COM_GetSerialPort(COM_SERIAL_USB_2, path)) << length;
        }
    });
}

TEST(GetSerialPort, ReadsALastLineWithoutAnEnd) {
    InBoardWorld([] {
        char path[COM_SERIAL_PATH_SIZE] = "";
        WriteFile("/proc/tty/driver/usb-serial", "5: x-1.3");
        EXPECT_EQ(0, COM_GetSerialPort(COM_SERIAL_USB_2, path));
        EXPECT_STREQ("/dev/ttyUSB5", path);
    });
}

// A line of the port without an adapter number is logged and skipped.
TEST(GetSerialPort, SkipsALineWithoutANumber) {
    InBoardWorld([] {
        CanaryBuf path{COM_SERIAL_PATH_SIZE};
        WriteFile("/proc/tty/driver/usb-serial", "-1.3\nx: y-1.3\n1234567890: z-1.3\n6: x-1.3\n");
        EXPECT_EQ(
            (Lines{"COMMON:COM_GetSerialPort(): No key delimiter found : [-1.3]",
                   "COMMON:COM_GetSerialPort(): No key delimiter found : [x: y-1.3]",
                   "COMMON:COM_GetSerialPort(): No key delimiter found : [1234567890: z-1.3]"}),
            CaptureLog([&] { EXPECT_EQ(0, COM_GetSerialPort(COM_SERIAL_USB_2, path.text())); }));
        EXPECT_STREQ("/dev/ttyUSB6", path.text());
    });
}

TEST(GetSerialPort, SucceedsWhenTheNodeCannotBeMade) {
    InBoardWorld([] {
        WriteFile("/proc/tty/driver/usb-serial", "6: x-1.3\n");
        RemountReadOnly("/dev");
        char path[COM_SERIAL_PATH_SIZE] = "";
        const Lines log =
            CaptureLog([&] { EXPECT_EQ(0, COM_GetSerialPort(COM_SERIAL_USB_2, path)); });
        EXPECT_STREQ("/dev/ttyUSB6", path);
        EXPECT_EQ(
            (Lines{"COMMON:COM_MakeNode(): mknod(/dev/ttyUSB6) fail : Read-only file system"}),
            log);
    });
}

}  // namespace
