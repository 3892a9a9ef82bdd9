#ifndef TALVEK_COMMON_THREAD_H
#define TALVEK_COMMON_THREAD_H

/* The program's registry of its threads, and a watchdog that looks at every registered process.
 *
 * The registry is the library's one piece of state. Entries are made by the threads themselves and
 * stay; they carry the process id, so that where all threads share one they differ by name only,
 * and memory figures are kept by the first entry of the process. */

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* An entry of the registry. The array ends with an entry whose pid is 0. */
typedef struct tThreadInfo {
    int32_t pid;   /* getpid at the registration */
    char state[4]; /* state letter last read from /proc/<pid>/stat, empty before the first check */
    int32_t mem;   /* memory in use, summed up by COM_LogThreadMemUsage */
    char name[76]; /* name given at the registration, cut to 75 characters */
} tThreadInfo;

static_assert(sizeof(tThreadInfo) == 88, "a registry entry is 88 bytes");
static_assert(offsetof(tThreadInfo, state) == 4, "the head of an entry is a process record");
static_assert(offsetof(tThreadInfo, mem) == 8, "layout of a registry entry");
static_assert(offsetof(tThreadInfo, name) == 12, "layout of a registry entry");

/* Enters the calling thread under a name and writes its process id, as decimal digits without a
 * newline, into /var/run/<name>.thread.pid. A pid file that cannot be written is logged and does
 * not stop the registration. Entering a name again makes a second entry.
 *
 * Returns the number of entries, or -1 when pName is NULL or there is no memory. */
int COM_LogThread(const char *pName);

/* Adds to the memory figure of the caller's first entry and logs the total.
 *
 *   amount  bytes to add, negative to take away
 *
 * Returns 0, also (silently) when the caller has no entry; -1 when nobody ever registered. */
int COM_LogThreadMemUsage(int amount);

/* Logs every entry: number, process id, name, last state, memory figure. */
void COM_ShowThread(void);

/* Starts the watchdog, which looks at every entry once a period and logs each process that is
 * stopped, a zombie or gone.
 *
 *   period  seconds between two looks; less than 1 counts as 1
 *
 * A forked child has the entries but not the watchdog; it may start one of its own.
 *
 * Returns 0, or the error number of pthread_create; EBUSY when the watchdog already runs. */
int COM_CreateThreadWatchdog(int period);

/* Ends the watchdog and waits for its end, which comes at once while it sleeps; a look that has
 * begun, its log lines included, is finished first. Returns 0, or the error number of
 * pthread_cancel; ESRCH when no watchdog runs in this process. */
int COM_DestroyThreadWatchdog(void);

/* The watchdog's start routine. It never returns: it ends by being cancelled, between two looks.
 *
 *   pData  the watchdog's data as COM_CreateThreadWatchdog passes it; with NULL there is nothing to
 *          do, and the routine returns NULL */
void *COM_ThreadWatchdog(void *pData);

#ifdef __cplusplus
}
#endif

#endif
