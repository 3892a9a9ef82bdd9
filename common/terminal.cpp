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

#include "base/cancel_guard.h"
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

constexpr const char *kOpenFunction = "COM_OpenTermDevice";

void FillSetting(tTermDevInfo &device) {
    struct termios &setting = device.current;
    if (device.use_given_flags != COM_TERM_GIVEN_FLAGS) {
        setting.c_iflag = kInputFlags;
        setting.c_oflag = kOutputFlags;
        setting.c_cflag = kControlFlags;
        setting.c_lflag = kLocalFlags;
        LOG_AS(kOpenFunction, "Using default termios flags setting:\n");
        LOG_AS(kOpenFunction, "c_iflag: 0x%X, c_oflag: 0x%X, c_cflag: 0x%X, c_lflag: 0x%X\n",
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
    for (const tTermFlag *pRow = COM_TermControlChars; pRow->name[0] != '\0'; ++pRow) {
        if (pRow->value == index) {
            return pRow->name;
        }
    }
    return "unknown";
}

struct SerialPort {
    int port;
    const char *usbPorts[2];  // tried in this order; the second may be NULL
};

constexpr SerialPort kSerialPorts[] = {
    {COM_SERIAL_USB_2, {"1.3", nullptr}},
    {COM_SERIAL_USB_3, {"1.2", "1.4"}},
    {COM_SERIAL_USB_4, {"1.1", nullptr}},
};

constexpr char kOnBoardPort[] = "/dev/ttyS2";
constexpr char kAdapterPrefix[] = "/dev/ttyUSB";
constexpr char kAdapterTable[] = "/proc/tty/driver/usb-serial";
constexpr char kAdapterTableOld[] = "/proc/tty/driver/usbserial";
constexpr dev_t kAdapterMajor = 188;

talvek::UniqueFile OpenAdapterTable() {
    constexpr const char *kFunction = "COM_GetSerialPort";
    talvek::UniqueFile table{talvek::OpenStream(kAdapterTable, "r")};
    if (table) {
        return table;
    }
    if (errno != ENOENT) {
        LOG_ERRNO_AS(kFunction, "open(%s) failed! : %s\n", kAdapterTable);
        return table;
    }
    table.Reset(talvek::OpenStream(kAdapterTableOld, "r"));
    if (!table && errno == ENOENT) {
        LOG_ERRNO_AS(kFunction, "open(%s, %s) failed! : %s\n", kAdapterTable, kAdapterTableOld);
    } else if (!table) {
        LOG_ERRNO_AS(kFunction, "open(%s) failed! : %s\n", kAdapterTableOld);
    }
    return table;
}

// Whether the text after the line's last "-", up to the line end, is the USB port.
bool IsPluggedInto(const char *pLine, const char *pUsbPort) {
    const char *pDash = strrchr(pLine, '-');
    if (pDash == nullptr) {
        return false;
    }
    const size_t length = strcspn(pDash + 1, "\n");
    return length == strlen(pUsbPort) && strncmp(pDash + 1, pUsbPort, length) == 0;
}

// The adapter's number is the first piece of the line, which is split at "." and ":".
bool StorePort(const char *pLine, char *pBuf) {
    const char *pNumber = pLine + strspn(pLine, ".:");
    const size_t digits = strspn(pNumber, "0123456789");
    // A minor number has at most 7 digits (20 bits); 9 cannot overflow 32 bits.
    if (digits < 1 || digits > 9 || strchr(".:", pNumber[digits]) == nullptr) {
        const int length = static_cast<int>(strlen(pLine));
        if (length > 1) {
            LOG_AS("COM_GetSerialPort", "No key delimiter found : [%.*s]\n", length - 1, pLine);
        }
        return false;
    }
    snprintf(pBuf, COM_SERIAL_PATH_SIZE, "%s%.*s", kAdapterPrefix, static_cast<int>(digits),
             pNumber);
    const dev_t device = kAdapterMajor * 256 + strtoul(pNumber, nullptr, 10);
    COM_MakeNode(pBuf, S_IFCHR | 0664, device);
    return true;
}

}  // namespace

int COM_OpenTermDevice(const char *pPath, tTermDevInfo *pDevInfo) {
    const talvek::CancelGuard guard;
    if (pDevInfo == nullptr) {
        return COM_TERM_NOT_OPENED;
    }
    if (pDevInfo->direction < COM_TERM_READ_ONLY || pDevInfo->direction > COM_TERM_READ_WRITE) {
        LOG("pDevInfo->direction = %d, use default O_RDONLY\n", pDevInfo->direction);
        pDevInfo->direction = COM_TERM_READ_ONLY;
    }
    pDevInfo->saved_valid = 0;
    pDevInfo->fd = talvek::OpenPath(pPath, pDevInfo->direction | O_NOCTTY | O_NONBLOCK);
    if (pDevInfo->fd < 0) {
        LOG_ERRNO("open(%s) failed : %s\n", talvek::Shown(pPath));
        return COM_TERM_NOT_OPENED;
    }
    if (pPath != pDevInfo->path) {
        snprintf(pDevInfo->path, sizeof pDevInfo->path, "%s", pPath);
    }

    int result = 0;
    if (tcgetattr(pDevInfo->fd, &pDevInfo->saved) == 0) {
        pDevInfo->saved_valid = 1;
    } else {
        LOG_ERRNO("tcgetattr(%s) error : %s\n", pPath);
        result = COM_TERM_NOT_SET;
    }
    LetLineSettle();

    FillSetting(*pDevInfo);
    if (cfsetospeed(&pDevInfo->current, pDevInfo->speed) != 0) {
        LOG_ERRNO("cfsetospeed(%s, %u) error : %s\n", pPath,
                  static_cast<unsigned>(pDevInfo->speed));
        return COM_TERM_NOT_SET;
    }
    tcflush(pDevInfo->fd, TCIFLUSH);
    if (tcsetattr(pDevInfo->fd, TCSANOW, &pDevInfo->current) != 0) {
        LOG_ERRNO("tcsetattr(%s) error : %s\n", pPath);
        result = COM_TERM_NOT_SET;
    }
    return result;
}

int COM_CloseTermDevice(tTermDevInfo *pDevInfo) {
    const talvek::CancelGuard guard;
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
    const talvek::CancelGuard guard;
    printf("%s = [0x%X] :", talvek::Shown(pLabel), flags);
    for (const tTermFlag *pRow = pTable; pRow != nullptr && pRow->name[0] != '\0'; ++pRow) {
        if ((flags & pRow->value) == pRow->value) {
            printf(" [%s]", pRow->name);
        }
    }
    const int result = putchar('\n');
    fflush(stdout);
    return result;
}

int COM_DumpTermios(const char *pTitle, const struct termios *pSetting) {
    const talvek::CancelGuard guard;
    if (pSetting == nullptr) {
        return EOF;
    }
    LOG_PLAIN("%s\n======\n", talvek::Shown(pTitle));
    COM_PrintTermFlags(" c_iflag", pSetting->c_iflag, COM_TermInputFlags);
    COM_PrintTermFlags(" c_oflag", pSetting->c_oflag, COM_TermOutputFlags);
    COM_PrintTermFlags(" c_cflag", pSetting->c_cflag, COM_TermControlFlags);
    COM_PrintTermFlags(" c_lflag", pSetting->c_lflag, COM_TermLocalFlags);
    for (uint32_t i = 0; i < kControlCharCount; ++i) {
        printf(" [%02d/%02d] c_cc[%s] = %d\n", static_cast<int>(i), kControlCharCount,
               ControlCharName(i), pSetting->c_cc[i]);
    }
    const int result = puts("======");
    fflush(stdout);
    return result;
}

int COM_GetSerialPort(int port, char *pBuf) {
    const talvek::CancelGuard guard;
    if (pBuf == nullptr || port == 0) {
        return -1;
    }
    if (port == COM_SERIAL_ON_BOARD) {
        snprintf(pBuf, COM_SERIAL_PATH_SIZE, "%s", kOnBoardPort);
        return 0;
    }
    const SerialPort *pPort = nullptr;
    for (const SerialPort &candidate : kSerialPorts) {
        if (candidate.port == port) {
            pPort = &candidate;
        }
    }
    if (pPort == nullptr) {
        LOG("Un-support idx = %d\n", port);
        return -1;
    }
    const talvek::UniqueFile table = OpenAdapterTable();
    if (!table) {
        return -1;
    }
    char line[256];
    while (fgets(line, sizeof line, table.get()) != nullptr) {
        for (const char *pUsbPort : pPort->usbPorts) {
            if (pUsbPort != nullptr && IsPluggedInto(line, pUsbPort) && StorePort(line, pBuf)) {
                return 0;
            }
        }
    }
    return -1;
}
