/* Shows the lines that arrive on a serial device, with the time (UTC) of each.
 *
 *   serial_dump /dev/ttyS0             at 9600 bits a second
 *   serial_dump -b 115200 -n 10 2      ten lines of the board's serial port 2
 *
 * Ends after -n lines, or when the device hangs up. Exits with 1 when the device cannot be opened
 * or its line cannot be set.
 */

#include <ctype.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <talvek/common/COMMON.h>
#include <unistd.h>

#include "facts.h"

enum { LINE_SIZE = 1024 }; /* a longer line is shown as several */

static speed_t Speed(long bits) {
    char name[COM_TERM_NAME_SIZE];
    snprintf(name, sizeof name, "B%ld", bits);
    for (const tTermFlag *pFlag = COM_TermControlFlags; pFlag->name[0] != '\0'; ++pFlag) {
        if (strcmp(pFlag->name, name) == 0) {
            return (speed_t)pFlag->value;
        }
    }
    FactsWrongUse();
}

static void ShowLine(char *pLine, size_t length) {
    struct timeval now;
    char time[COM_TIMEVAL_SIZE] = "";
    gettimeofday(&now, NULL);
    COM_TimevalToStr(time, now.tv_sec, (long)now.tv_usec);
    pLine[length] = '\0';
    FactsItem();
    FactsText("time", time);
    FactsText("text", pLine);
}

static void ShowLines(int fd, long most) {
    char line[LINE_SIZE + 1], byte;
    size_t length = 0;
    long count = 0;
    struct pollfd wait = {.fd = fd, .events = POLLIN};
    while (count < most && poll(&wait, 1, -1) == 1 && read(fd, &byte, 1) == 1) {
        if (byte != '\n' && byte != '\0') {
            line[length++] = byte;
        }
        if (byte == '\n' || length == LINE_SIZE) {
            ShowLine(line, length);
            length = 0;
            ++count;
        }
    }
    if (length > 0) {
        ShowLine(line, length);
    }
}

int main(int argc, char *argv[]) {
    /* Eight data bits, no echo, every byte as it arrives. */
    tTermDevInfo device = {.direction = COM_TERM_READ_ONLY,
                           .current = {.c_cflag = CS8 | CREAD | CLOCAL},
                           .use_given_flags = COM_TERM_GIVEN_FLAGS};
    long bits = 9600, lines = 0x7FFFFFFF;
    for (int option;
         (option = FactsOption(argc, argv, "b:n:", "[-b bits] [-n lines] <device | 1-4>")) != -1;) {
        if (option == 'b') {
            bits = FactsArgument(optarg, 50, 4000000);
        } else {
            lines = FactsArgument(optarg, 1, lines);
        }
    }
    if (argc != optind + 1) {
        FactsWrongUse();
    }
    device.speed = Speed(bits);

    char path[COM_SERIAL_PATH_SIZE];
    const char *pPath = argv[optind];
    if (isdigit((unsigned char)pPath[0])) {
        pPath = COM_GetSerialPort((int)FactsArgument(pPath, 1, 4), path) == 0 ? path : NULL;
    }
    if (COM_OpenTermDevice(pPath, &device) != 0) {
        fprintf(stderr, "%s: cannot be opened or set\n", argv[optind]);
        COM_CloseTermDevice(&device);
        return 1;
    }
    FactsText("device", pPath);
    FactsNumber("speed", bits, "bits a second");
    FactsList("lines");
    ShowLines(device.fd, lines);
    FactsListEnd();
    COM_CloseTermDevice(&device);
    return FactsEnd(0);
}
