#ifndef TALVEK_COMMON_SYSTEM_INFO_H
#define TALVEK_COMMON_SYSTEM_INFO_H

/* What the kernel reports under /proc about memory, PCI devices, device tables and its own version
 * (proc(5)), and times as text.
 *
 * Each call reads the file again. A file that cannot be opened is logged with the module name
 * COMMON and the entry's own name. A line that is longer than an entry's limit counts as several
 * lines. */

#include <stdint.h>

#include "wide_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Indexes of the figures in the array of COM_GetMemAndSwap. */
enum {
    COM_MEM_TOTAL = 0,
    COM_MEM_FREE = 1,
    COM_SWAP_TOTAL = 2,
    COM_SWAP_FREE = 3,
    COM_MEM_FIGURES = 4 /* number of figures */
};

/* Reads the memory figures of /proc/meminfo.
 *
 *   pValue  COM_MEM_FIGURES numbers in kB, or NULL. The caller sets them before the first call and
 *           keeps them between calls: when one of them changed, all four are logged. A figure that
 *           the file does not name is unchanged; one that exceeds 32 bits becomes INT32_MAX.
 *
 * Returns 0; -1 when the file cannot be opened, has none of the figures, or has no number after the
 * last of them. */
int COM_GetMemAndSwap(int32_t *pValue);

/* Reads the identifiers of PCI devices from /proc/bus/pci/devices: the second field of each line
 * (511 bytes) that contains a text anywhere, ignoring case.
 *
 *   pPattern  the text, for example a driver's name
 *   pIds      `max` numbers: the vendor in the upper 16 bits, the device in the lower. That of a
 *             line without a second field is unchanged.
 *
 * Returns the number of lines found, at most `max`; -1 when a pointer is NULL (logged) or the file
 * cannot be opened. */
int COM_GetPciDeviceId(const char *pPattern, uint32_t *pIds, int max);

/* Counts the lines (255 bytes) of /proc/bus/pci/devices that contain a text anywhere, ignoring
 * case, and logs the result. The kernel writes the driver's name near that limit, and a name that
 * the limit cuts in two is not found (COM_GetPciDeviceId reads the whole line).
 *
 * Returns the count; -1 when pPattern is NULL (logged) or the file cannot be opened. */
int COM_GetPciDevice(const char *pPattern);

enum { COM_DEVICE_NAME_SIZE = 16 }; /* bytes of a device's name with its NUL */

typedef char tDeviceName[COM_DEVICE_NAME_SIZE];

/* Reads the names before the first ":" of the lines (255 bytes) of a table such as /proc/net/dev.
 * Blanks and what is not printable in ASCII are left out; a name is cut to 15 characters.
 *
 *   ppList  address of a NULL pointer; receives the list, which the caller releases with free. It
 *           stays NULL when there is no such line.
 *   pPath   the table
 *
 * Returns the number of names; -1 without a list when ppList is NULL or *ppList is not (logged), or
 * when the file cannot be opened. A line for which there is no memory is logged and left out. */
int COM_GetDeviceFromProc(tDeviceName **ppList, const char *pPath);

enum { COM_KERNEL_TEXT_SIZE = 256 }; /* bytes that hold any output of COM_GetKernelVersion */

/* Takes the kernel's version from the first 256 bytes of /proc/version, which begins like "Linux
 * version 2.6.35-rt1 (...".
 *
 *   pRelease  COM_KERNEL_TEXT_SIZE bytes, or NULL if not needed: the three numbers and what is
 *             between them ("2.6.35")
 *   pExtra    COM_KERNEL_TEXT_SIZE bytes, or NULL if not needed: what follows the next character,
 *             up to white space ("rt1"). "Linux version 2.6.35 (gcc ..." gives "(gcc".
 *
 * Returns 0, or -1 with nothing written when the file cannot be read or does not look like that. */
int COM_GetKernelVersion(char *pRelease, char *pExtra);

/* Bytes of the texts of time with their NUL. */
enum {
    COM_TIME_SIZE = 32,   /* of COM_TimeToStr */
    COM_TIMEVAL_SIZE = 39 /* of COM_TimevalToStr */
};

/* Writes a time as "YYYY/MM/DD hh:mm:ss" in UTC.
 *
 *   pBuf  COM_TIME_SIZE bytes
 *   t     seconds since 1970
 *
 * Returns 0, or -1 with nothing written when the year does not fit struct tm or pBuf is NULL. */
int COM_TimeToStr(char *pBuf, time_t t);

/* Writes a time with microseconds: "YYYY/MM/DD hh:mm:ss.uuuuuu".
 *
 *   pBuf  COM_TIMEVAL_SIZE bytes; a longer text is cut
 *   usec  below 0, a second is added to it (-1 gives ".999999"), but the text keeps the second of
 *         `sec`
 *
 * Returns 0, or -1 with nothing written when COM_TimeToStr fails. */
int COM_TimevalToStr(char *pBuf, time_t sec, long usec);

/* Writes a time and its text to standard output: "[seconds] -> [YYYY/MM/DD hh:mm:ss]", with
 * "pPrefix,line: " before it unless pPrefix is NULL.
 *
 * Returns 0, or -1 without output when the time cannot be converted. */
int COM_PrintTime(const char *pPrefix, int line, time_t t);

/* Converts a time to calendar time in UTC: gmtime_r with its arguments the other way round.
 *
 * Returns pTm; NULL when the year does not fit in it or pTm is NULL. */
struct tm *COM_GmTime(struct tm *pTm, time_t t);

#ifdef __cplusplus
}
#endif

#endif
