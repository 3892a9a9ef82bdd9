#ifndef TALVEK_COMMON_THREAD_H
#define TALVEK_COMMON_THREAD_H

/* The program's registry of its threads, and a watchdog that checks every registered process.
 *
 * The registry and the watchdog are the library's only state. Threads enter themselves, and entries
 * stay. An entry is found by its process id. So the threads of a process differ by name only, and
 * the first entry of the process has the memory figure of all its threads. A forked child has a
 * copy of the registry. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { COM_THREAD_NAME_SIZE = 76 }; /* bytes of a registered name with its NUL */

/* An entry of the registry. The array ends with an entry whose pid is 0. */
typedef struct tThreadInfo {
    int32_t pid;   /* getpid at the registration */
    char state[4]; /* state letter last read from /proc/<pid>/stat, empty before the first check */
    int32_t mem;   /* memory in use, summed up by COM_LogThreadMemUsage */
    char name[COM_THREAD_NAME_SIZE]; /* name given at the registration, cut to 75 characters */
} tThreadInfo;

static_assert(sizeof(tThreadInfo) == 88, "a registry entry is 88 bytes");
static_assert(offsetof(tThreadInfo, state) == 4, "the head of an entry is a process record");
static_assert(offsetof(tThreadInfo, mem) == 8, "layout of a registry entry");
static_assert(offsetof(tThreadInfo, name) == 12, "layout of a registry entry");

/* Enters the calling thread under a name and writes its process id, as decimal digits without a
 * newline, into /var/run/<name>.thread.pid. A pid file that cannot be written is logged and does
 * not stop the registration. In its place a symbolic link is not followed, and a file with further
 * hard links, a FIFO or a device is not written. Entering a name again makes a second entry.
 *
 * Returns the number of entries, or -1 when pName is NULL or there is no memory. */
int COM_LogThread(const char *pName);

/* Adds to the memory figure of the caller's process and logs the total, which wraps at 32 bits.
 *
 *   amount  bytes to add, negative to subtract
 *
 * Returns 0, also when the process has no entry (not logged); -1 when the registry is empty. */
int COM_LogThreadMemUsage(int amount);

/* Logs every entry: number, process id, name, last state, memory figure. */
void COM_ShowThread(void);

/* Starts the watchdog, which checks every entry once a period and logs each process that is
 * stopped, a zombie or gone.
 *
 *   period  seconds between two checks; less than 1 counts as 1
 *
 * A forked child has no watchdog; it may start one of its own.
 *
 * Returns 0, or the error number of pthread_create; EBUSY when the watchdog already runs. */
int COM_CreateThreadWatchdog(int period);

/* Ends the watchdog and waits for its end. A sleeping watchdog ends at once; a check that has begun
 * is finished first, with its log lines. glibc's pthread_cancel loads libgcc_s.so.1 and aborts the
 * process when it cannot, for example without a free descriptor.
 *
 * Returns 0, or the error number of pthread_cancel; ESRCH when no watchdog runs in this process. */
int COM_DestroyThreadWatchdog(void);

/* The watchdog's start routine. It never returns: cancellation ends it, between two checks.
 *
 *   pData  the watchdog's data, passed by COM_CreateThreadWatchdog; with NULL the routine returns
 *          NULL at once */
void *COM_ThreadWatchdog(void *pData);

#ifdef __cplusplus
}
#endif

#endif
