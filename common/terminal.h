#ifndef TALVEK_COMMON_TERMINAL_H
#define TALVEK_COMMON_TERMINAL_H

/* Serial and terminal devices with the board's line setting, the names of the board's serial ports,
 * and a readable dump of termios settings. */

#include <stdint.h>
#include <termios.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A terminal device, filled partly by the caller, partly by COM_OpenTermDevice. */
typedef struct tTermDevInfo {
    char path[80];           /* device path, stored by the open call, cut to 79 characters */
    int32_t fd;              /* open descriptor, negative after a failed open */
    int32_t direction;       /* 0 read-only, 1 write-only, 2 read-write; set by the caller */
    speed_t speed;           /* output line speed, one of the B constants; set by the caller */
    struct termios saved;    /* the device's setting as it was before the change */
    struct termios current;  /* the setting applied; its flag words may be the caller's */
    int32_t use_given_flags; /* 1 keeps the caller's four flag words in `current`; any other value
                                takes the board's line setting */
    int32_t saved_valid;     /* 1 when `saved` was read; stored by the open call */
} tTermDevInfo;

/* One named flag, speed or control-character index of <termios.h>. A table ends with an entry whose
 * name is empty. */
typedef struct tTermFlag {
    uint32_t value;
    char name[12];
} tTermFlag;

extern const tTermFlag COM_TermInputFlags[];
extern const tTermFlag COM_TermOutputFlags[];
extern const tTermFlag COM_TermControlFlags[]; /* the speeds included */
extern const tTermFlag COM_TermLocalFlags[];
extern const tTermFlag COM_TermControlChars[]; /* value = index into c_cc */

/* Opens a terminal device, without making it the controlling one and without blocking, and sets its
 * line.
 *
 *   pPath     NUL-terminated device path; it may be pDevInfo->path
 *   pDevInfo  the record; direction, speed and use_given_flags are read, and the flag words of
 *             `current` where they are to be kept. A direction outside 0 to 2 counts as 0.
 *
 * Without given flags the line is canonical and echoing with 8 data bits, no parity, one stop bit:
 * c_iflag 0x500 (ICRNL, IXON), c_oflag 0x5 (OPOST, ONLCR), c_cflag 0xCB0 (CS8, CREAD, HUPCL,
 * CLOCAL), c_lflag 0x823B (ISIG, ICANON, ECHO, ECHOE, ECHOK, ECHOCTL, IEXTEN). The control
 * characters are the board's in any case. Pending input is thrown away. The call takes half a
 * second: the line is left alone for that time after the open.
 *
 * Returns 0; -1 when the setting could not be read or applied (the device stays open); -2 when the
 * device cannot be opened. */
int COM_OpenTermDevice(const char *pPath, tTermDevInfo *pDevInfo);

/* Puts the saved setting back, where it was read, and closes the device; `fd` becomes -1.
 *
 * The setting changes at once: output that has not been sent yet is not waited for (tcdrain(3)
 * waits for it). Returns 0, or -1 when nothing is open or the setting cannot be restored (the
 * device is closed all the same). */
int COM_CloseTermDevice(tTermDevInfo *pDevInfo);

/* Prints "label = [0xFLAGS] : [NAME] [NAME]..." with every table entry whose bits are all set in
 * the flag word, and a newline.
 *
 * Fields of several bits and speeds are matched by the same rule, so B0 and every speed whose bits
 * are among those of the word are listed too. Returns the result of the last putchar. A NULL table
 * has no entries. */
int COM_PrintTermFlags(const char *pLabel, uint32_t flags, const tTermFlag *pTable);

/* Prints a whole setting: the title, the four flag words by name, the 32 control characters.
 * Returns the result of the last puts, or EOF without output when pSetting is NULL. */
int COM_DumpTermios(const char *pTitle, const struct termios *pSetting);

/* Finds the device of one of the board's serial ports.
 *
 *   port  1 the on-board port /dev/ttyS2; 2, 3, 4 the USB serial adapter in the USB port 1.3,
 *         1.2 or 1.4, and 1.1, by /proc/tty/driver/usb-serial (Linux, drivers/usb/serial)
 *   pBuf  32 bytes for the device path with its NUL
 *
 * The node of an adapter is made when it is missing (character device 188:number, mode 0664).
 * Returns 0, or -1 with pBuf as it was when there is no such port or no adapter in it. */
int COM_GetSerialPort(int port, char *pBuf);

#ifdef __cplusplus
}
#endif

#endif
