#ifndef TALVEK_COMMON_TERMINAL_H
#define TALVEK_COMMON_TERMINAL_H

/* Serial and terminal devices with the board's line setting, the names of the board's serial ports,
 * and a readable dump of termios settings.
 *
 * Failures are logged with the module name COMMON and the entry's own name. */

#include <stdint.h>
#include <termios.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { COM_TERM_PATH_SIZE = 80 }; /* bytes of a device path in the record, with its NUL */

/* Directions, the access modes of open(2). Any other value is logged and becomes
 * COM_TERM_READ_ONLY. */
enum { COM_TERM_READ_ONLY = 0, COM_TERM_WRITE_ONLY = 1, COM_TERM_READ_WRITE = 2 };

/* Values of use_given_flags. Any other one counts as COM_TERM_DEFAULT_FLAGS. */
enum {
    COM_TERM_DEFAULT_FLAGS = 0, /* the board's line setting */
    COM_TERM_GIVEN_FLAGS = 1    /* the caller's four flag words in `current` */
};

/* A terminal device, filled partly by the caller, partly by COM_OpenTermDevice. */
typedef struct tTermDevInfo {
    char path[COM_TERM_PATH_SIZE]; /* device path, stored by the open call, cut to 79 characters */
    int32_t fd;                    /* open descriptor, negative after a failed open */
    int32_t direction;             /* COM_TERM_READ_ONLY and so on; set by the caller */
    speed_t speed;                 /* line speed, one of the B constants; set by the caller */
    struct termios saved;          /* the device's setting before the change */
    struct termios current;        /* the setting applied; its flag words may be the caller's */
    int32_t use_given_flags;       /* COM_TERM_DEFAULT_FLAGS or COM_TERM_GIVEN_FLAGS; set by the
                                      caller */
    int32_t saved_valid;           /* 1 when `saved` was read; stored by the open call */
} tTermDevInfo;

enum { COM_TERM_NAME_SIZE = 12 }; /* bytes of a flag's name with its NUL */

/* One named flag, speed or control-character index of <termios.h>. A table ends with an entry whose
 * name is empty. */
typedef struct tTermFlag {
    uint32_t value;
    char name[COM_TERM_NAME_SIZE];
} tTermFlag;

extern const tTermFlag COM_TermInputFlags[];
extern const tTermFlag COM_TermOutputFlags[];
extern const tTermFlag COM_TermControlFlags[]; /* the speeds included */
extern const tTermFlag COM_TermLocalFlags[];
extern const tTermFlag COM_TermControlChars[]; /* value = index into c_cc */

/* Results of COM_OpenTermDevice other than 0. */
enum {
    COM_TERM_NOT_SET = -1,   /* the setting could not be read or applied; the device is open */
    COM_TERM_NOT_OPENED = -2 /* the device could not be opened */
};

/* Opens a terminal device and sets its line. The device does not become the controlling terminal.
 * The call takes half a second: the line is left alone for that time after the open.
 *
 *   pPath     device path; may be pDevInfo->path
 *   pDevInfo  the record; direction, speed and use_given_flags are read, and the flag words of
 *             `current` with COM_TERM_GIVEN_FLAGS
 *
 * The descriptor is non-blocking (O_NONBLOCK): a read without pending input fails with EAGAIN, and
 * a write that the line cannot take now is cut short or fails with EAGAIN. Use fcntl(2) to change
 * that. Pending input is discarded.
 *
 * With COM_TERM_DEFAULT_FLAGS the line is canonical and echoing with 8 data bits, no parity, one
 * stop bit: c_iflag 0x500 (ICRNL, IXON), c_oflag 0x5 (OPOST, ONLCR), c_cflag 0xCB0 (CS8, CREAD,
 * HUPCL, CLOCAL), c_lflag 0x823B (ISIG, ICANON, ECHO, ECHOE, ECHOK, ECHOCTL, IEXTEN). The words are
 * logged.
 *
 * The control characters are always set:
 *
 *   VINTR 3 (^C), VQUIT 28 (^\), VERASE 127, VKILL 21 (^U), VEOF 4 (^D), VSTART 17 (^Q),
 *   VSTOP 19 (^S), VSUSP 26 (^Z), VREPRINT 18 (^R), VDISCARD 15 (^O), VWERASE 23 (^W),
 *   VLNEXT 22 (^V); VMIN 1; VTIME, VSWTC, VEOL and VEOL2 0
 *
 * The input speed is the output speed, unless given flags ask for another one (CIBAUD). A speed
 * that is no B constant is logged, and no setting is applied (COM_TERM_NOT_SET).
 *
 * Returns 0, COM_TERM_NOT_SET or COM_TERM_NOT_OPENED. For a NULL path it is COM_TERM_NOT_OPENED
 * (logged; `fd` becomes -1), as for a NULL record (not logged). */
int COM_OpenTermDevice(const char *pPath, tTermDevInfo *pDevInfo);

/* Restores the saved setting, if it was read, and closes the device; `fd` becomes -1. The
 * setting changes at once: pending output is not waited for (tcdrain(3) waits for it).
 *
 * Returns 0, or -1 when nothing is open or the setting cannot be restored (the device is closed all
 * the same). */
int COM_CloseTermDevice(tTermDevInfo *pDevInfo);

/* Prints "label = [0xFLAGS] : [NAME] [NAME]..." with every table entry whose bits are all set in
 * the flag word, and a newline. Fields of several bits and speeds follow the same rule, so B0 and
 * every speed whose bits are among those of the word are listed too.
 *
 * Returns the result of the last putchar. A NULL label is printed as "(null)"; a NULL table has no
 * entries. */
int COM_PrintTermFlags(const char *pLabel, uint32_t flags, const tTermFlag *pTable);

/* Prints a whole setting: the title ("(null)" for NULL), the four flag words by name, the 32
 * control characters.
 *
 * Returns the result of the last puts, or EOF without output when pSetting is NULL. */
int COM_DumpTermios(const char *pTitle, const struct termios *pSetting);

/* The board's serial ports, with the USB port (hub.port) of the adapters. */
enum {
    COM_SERIAL_ON_BOARD = 1, /* /dev/ttyS2 */
    COM_SERIAL_USB_2 = 2,    /* 1.3 */
    COM_SERIAL_USB_3 = 3,    /* 1.2 or 1.4 */
    COM_SERIAL_USB_4 = 4     /* 1.1 */
};

enum { COM_SERIAL_PATH_SIZE = 32 }; /* bytes of a serial port's device path with its NUL */

/* Finds the device of one of the board's serial ports. A USB serial adapter is identified by the
 * USB port that it is plugged into (/proc/tty/driver/usb-serial, Linux, drivers/usb/serial).
 *
 *   port  COM_SERIAL_ON_BOARD to COM_SERIAL_USB_4
 *   pBuf  COM_SERIAL_PATH_SIZE bytes for the device path
 *
 * The node of an adapter is made when it is missing (character device 188 * 256 + number, mode
 * 0664).
 *
 * Returns 0; -1 when there is no such port (logged, except 0), no adapter in it, or no table of
 * adapters (logged). */
int COM_GetSerialPort(int port, char *pBuf);

#ifdef __cplusplus
}
#endif

#endif
