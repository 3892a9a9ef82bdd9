// Serial and terminal devices: opening with the board's line setting, port names, termios by name.

#include "common/terminal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include "base/path.h"
#include "base/unique_stream.h"
#include "common/file.h"
#include "common/file_content.h"
#include "common/internal/module_log.h"

#define FLAG(name) \
    { name, #name }

const tTermFlag COM_TermInputFlags[] = {FLAG(IGNBRK), FLAG(BRKINT),  FLAG(IGNPAR), FLAG(PARMRK),
                                        FLAG(INPCK),  FLAG(ISTRIP),  FLAG(INLCR),  FLAG(IGNCR),
                                        FLAG(ICRNL),  FLAG(IUCLC),   FLAG(IXON),   FLAG(IXANY),
                                        FLAG(IXOFF),  FLAG(IMAXBEL), {0, ""}};

const tTermFlag COM_TermOutputFlags[] = {FLAG(OPOST), FLAG(OLCUC),  FLAG(ONLCR),  FLAG(OCRNL),
                                         FLAG(ONOCR), FLAG(ONLRET), FLAG(OFILL),  FLAG(OFDEL),
                                         FLAG(NLDLY), FLAG(CRDLY),  FLAG(TABDLY), FLAG(BSDLY),
                                         FLAG(VTDLY), FLAG(FFDLY),  {0, ""}};

const tTermFlag COM_TermControlFlags[] = {
    FLAG(B0),      FLAG(B50),    FLAG(B75),    FLAG(B110),   FLAG(B134),   FLAG(B150),
    FLAG(B200),    FLAG(B300),   FLAG(B600),   FLAG(B1200),  FLAG(B1800),  FLAG(B2400),
    FLAG(B4800),   FLAG(B9600),  FLAG(B19200), FLAG(B38400), FLAG(B57600), FLAG(B115200),
    FLAG(B230400), FLAG(CSIZE),  FLAG(CSTOPB), FLAG(CREAD),  FLAG(PARENB), FLAG(PARODD),
    FLAG(HUPCL),   FLAG(CLOCAL), {0, ""}};

const tTermFlag COM_TermLocalFlags[] = {FLAG(ISIG),   FLAG(ICANON), FLAG(XCASE),  FLAG(ECHO),
                                        FLAG(ECHOE),  FLAG(ECHOK),  FLAG(ECHONL), FLAG(ECHOCTL),
                                        FLAG(NOFLSH), FLAG(TOSTOP), FLAG(IEXTEN), {0, ""}};

const tTermFlag COM_TermControlChars[] = {
    FLAG(VINTR),    FLAG(VQUIT),   FLAG(VERASE), FLAG(VKILL), FLAG(VMIN),  FLAG(VTIME),
    FLAG(VEOL2),    FLAG(VSWTC),   FLAG(VSTART), FLAG(VSTOP), FLAG(VSUSP), FLAG(VREPRINT),
    FLAG(VDISCARD), FLAG(VWERASE), FLAG(VLNEXT), FLAG(VEOF),  FLAG(VEOL),  {0, ""}};

#undef FLAG

namespace talvek {
namespace {

constexpr struct timespec kSettleTime { 0, 500'000'000 };

// The board's line: canonical and echoing, 8 data bits, no parity, one stop bit.
constexpr tcflag_t kInputFlags = 0x500;
constexpr tcflag_t kOutputFlags = 0x5;
constexpr tcflag_t kControlFlags = 0xCB0;
constexpr tcflag_t kLocalFlags = 0x823B;
static_assert(kInputFlags == (ICRNL | IXON));
static_assert(kOutputFlags == (OPOST | ONLCR));
static_assert(kControlFlags == (CS8 | CREAD | HUPCL | CLOCAL));
static_assert(kLocalFlags == (ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHOCTL | IEXTEN));

struct ControlChar {
    int index;
    cc_t value;
};

constexpr ControlChar kControlChars[] = {
    {VINTR, 3},     {VQUIT, 28},    {VERASE, 127}, {VKILL, 21},  {VEOF, 4},   {VTIME, 0},
    {VMIN, 1},      {VSWTC, 0},     {VSTART, 17},  {VSTOP, 19},  {VSUSP, 26}, {VEOL, 0},
    {VREPRINT, 18}, {VDISCARD, 15}, {VWERASE, 23}, {VLNEXT, 22}, {VEOL2, 0},
};

constexpr int kControlCharCount = 32;
static_assert(NCCS == kControlCharCount);

constexpr const char *kOpen = "COM_OpenTermDevice";

// Raw mode is the ground; the four words and the control characters then say the line.
void FillSetting(tTermDevInfo &device) {
    struct termios &setting = device.current;
    const struct termios given = setting;
    cfmakeraw(&setting);
    if (device.use_given_flags == 1) {
        setting.c_iflag = given.c_iflag;
        setting.c_oflag = given.c_oflag;
        setting.c_cflag = given.c_cflag;
        setting.c_lflag = given.c_lflag;
    } else {
        setting.c_iflag = kInputFlags;
        setting.c_oflag = kOutputFlags;
        setting.c_cflag = kControlFlags;
        setting.c_lflag = kLocalFlags;
        LOG_AS(kOpen, "Using default termios flags setting:\n");
        LOG_AS(kOpen, "c_iflag: 0x%X, c_oflag: 0x%X, c_cflag: 0x%X, c_lflag: 0x%X\n",
               setting.c_iflag, setting.c_oflag, setting.c_cflag, setting.c_lflag);
    }
    for (const ControlChar &character : kControlChars) {
        setting.c_cc[character.index] = character.value;
    }
}

// The line is left alone for the whole time, also when signals arrive.
void LetLineSettle() {
    struct timespec left = kSettleTime;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

const char *ControlCharName(uint32_t index) {
    for (const tTermFlag *pEntry = COM_TermControlChars; pEntry->name[0] != '\0'; ++pEntry) {
        if (pEntry->value == index) {
            return pEntry->name;
        }
    }
    return "unknown";
}

// USB serial adapters are told apart by the USB port that they are plugged into.
struct SerialPort {
    int port;
    const char *usbPorts[2];  // tried in this order; the second may be null
};

constexpr SerialPort kSerialPorts[] = {
    {2, {"1.3", nullptr}},
    {3, {"1.2", "1.4"}},
    {4, {"1.1", nullptr}},
};

constexpr char kOnBoardPort[] = "/dev/ttyS2";
constexpr char kAdapterPrefix[] = "/dev/ttyUSB";
constexpr char kAdapterTable[] = "/proc/tty/driver/usb-serial";
constexpr char kAdapterTableOld[] = "/proc/tty/driver/usbserial";
constexpr size_t kPortPathSize = 32;
constexpr dev_t kAdapterMajor = 188;

UniqueFile OpenAdapterTable() {
    constexpr const char *kEntry = "COM_GetSerialPort";
    UniqueFile table{OpenStream(kAdapterTable, "r")};
    if (table) {
        return table;
    }
    if (errno != ENOENT) {
        LOG_ERRNO_AS(kEntry, "open(%s) failed! : %s\n", kAdapterTable);
        return table;
    }
    table.Reset(OpenStream(kAdapterTableOld, "r"));
    if (!table && errno == ENOENT) {
        LOG_ERRNO_AS(kEntry, "open(%s, %s) failed! : %s\n", kAdapterTable, kAdapterTableOld);
    } else if (!table) {
        LOG_ERRNO_AS(kEntry, "open(%s) failed! : %s\n", kAdapterTableOld);
    }
    return table;
}

// Whether the text behind the line's last "-", up to the line end, is the USB port.
bool IsPluggedInto(const char *pLine, const char *pUsbPort) {
    const char *pDash = strrchr(pLine, '-');
    if (pDash == nullptr) {
        return false;
    }
    const size_t length = strcspn(pDash + 1, "\n");
    return length == strlen(pUsbPort) && strncmp(pDash + 1, pUsbPort, length) == 0;
}

// The adapter's number is the line's first piece between "." and ":".
bool StorePort(const char *pLine, char *pBuf) {
    const char *pNumber = pLine + strspn(pLine, ".:");
    const size_t digits = strspn(pNumber, "0123456789");
    // Minor numbers of a driver have few digits; more are no adapter's.
    if (digits < 1 || digits > 9 || strchr(".:", pNumber[digits]) == nullptr) {
        const int length = static_cast<int>(strlen(pLine));
        if (length > 1) {
            LOG_AS("COM_GetSerialPort", "No key delimiter found : [%.*s]\n", length - 1, pLine);
        }
        return false;
    }
    snprintf(pBuf, kPortPathSize, "%s%.*s", kAdapterPrefix, static_cast<int>(digits), pNumber);
    const dev_t device = kAdapterMajor * 256 + strtoul(pNumber, nullptr, 10);
    COM_MakeNode(pBuf, S_IFCHR | 0664, device);
    return true;
}

}  // namespace
}  // namespace talvek

int COM_OpenTermDevice(const char *pPath, tTermDevInfo *pDevInfo) {
    if (pPath == nullptr || pDevInfo == nullptr) {
        return -2;
    }
    if (pDevInfo->direction < O_RDONLY || pDevInfo->direction > O_RDWR) {
        LOG("pDevInfo->direction = %d, use default O_RDONLY\n", pDevInfo->direction);
        pDevInfo->direction = O_RDONLY;
    }
    pDevInfo->saved_valid = 0;
    pDevInfo->fd = open(pPath, pDevInfo->direction | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (pDevInfo->fd < 0) {
        LOG_ERRNO("open(%s) failed : %s\n", pPath);
        return -2;
    }
    if (pPath != pDevInfo->path) {
        snprintf(pDevInfo->path, sizeof pDevInfo->path, "%s", pPath);
    }

    int result = 0;
    if (tcgetattr(pDevInfo->fd, &pDevInfo->saved) == 0) {
        pDevInfo->saved_valid = 1;
    } else {
        LOG_ERRNO("tcgetattr(%s) error : %s\n", pPath);
        result = -1;
    }
    talvek::LetLineSettle();

    talvek::FillSetting(*pDevInfo);
    cfsetospeed(&pDevInfo->current, pDevInfo->speed);
    tcflush(pDevInfo->fd, TCIFLUSH);
    if (tcsetattr(pDevInfo->fd, TCSANOW, &pDevInfo->current) != 0) {
        LOG_ERRNO("tcsetattr(%s) error : %s\n", pPath);
        result = -1;
    }
    return result;
}

int COM_CloseTermDevice(tTermDevInfo *pDevInfo) {
    if (pDevInfo == nullptr || pDevInfo->fd < 0) {
        return -1;
    }
    int result = 0;
    if (pDevInfo->saved_valid == 1 && tcsetattr(pDevInfo->fd, TCSANOW, &pDevInfo->saved) != 0) {
        LOG_ERRNO("tcsetattr(%s) error : %s\n", pDevInfo->path);
        result = -1;
    }
    pDevInfo->saved_valid = 0;
    COM_CloseFd(&pDevInfo->fd);
    return result;
}

int COM_PrintTermFlags(const char *pLabel, uint32_t flags, const tTermFlag *pTable) {
    printf("%s = [0x%X] :", pLabel, flags);
    for (const tTermFlag *pEntry = pTable; pEntry != nullptr && pEntry->name[0] != '\0'; ++pEntry) {
        if ((flags & pEntry->value) == pEntry->value) {
            printf(" [%s]", pEntry->name);
        }
    }
    const int result = putchar('\n');
    fflush(stdout);
    return result;
}

int COM_DumpTermios(const char *pTitle, const struct termios *pSetting) {
    if (pSetting == nullptr) {
        return EOF;
    }
    LOG_PLAIN("%s\n======\n", pTitle);
    COM_PrintTermFlags(" c_iflag", pSetting->c_iflag, COM_TermInputFlags);
    COM_PrintTermFlags(" c_oflag", pSetting->c_oflag, COM_TermOutputFlags);
    COM_PrintTermFlags(" c_cflag", pSetting->c_cflag, COM_TermControlFlags);
    COM_PrintTermFlags(" c_lflag", pSetting->c_lflag, COM_TermLocalFlags);
    for (uint32_t i = 0; i < talvek::kControlCharCount; ++i) {
        printf(" [%02d/%02d] c_cc[%s] = %d\n", static_cast<int>(i), talvek::kControlCharCount,
               talvek::ControlCharName(i), pSetting->c_cc[i]);
    }
    const int result = puts("======");
    fflush(stdout);
    return result;
}

int COM_GetSerialPort(int port, char *pBuf) {
    if (pBuf == nullptr || port == 0) {
        return -1;
    }
    if (port == 1) {
        snprintf(pBuf, talvek::kPortPathSize, "%s", talvek::kOnBoardPort);
        return 0;
    }
    const talvek::SerialPort *pPort = nullptr;
    for (const talvek::SerialPort &candidate : talvek::kSerialPorts) {
        if (candidate.port == port) {
            pPort = &candidate;
        }
    }
    if (pPort == nullptr) {
        LOG("Un-support idx = %d\n", port);
        return -1;
    }
    const talvek::UniqueFile table = talvek::OpenAdapterTable();
    if (!table) {
        return -1;
    }
    char line[256];
    while (fgets(line, sizeof line, table.get()) != nullptr) {
        for (const char *pUsbPort : pPort->usbPorts) {
            if (pUsbPort != nullptr && talvek::IsPluggedInto(line, pUsbPort) &&
                talvek::StorePort(line, pBuf)) {
                return 0;
            }
        }
    }
    return -1;
}
