#ifndef TALVEK_COMMON_COMMAND_H
#define TALVEK_COMMON_COMMAND_H

/* Commands without a shell, and the control of processes: running, signalling, looking at the
 * state, waiting. Failures are logged with the module name COMMON and the entry's own name. */

#include <pthread.h>
#include <stdint.h>

#include "wide_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Runs a program and waits for its end, with the signals as system() has them but without a shell:
 * there is no quoting, redirection or expansion, and no search through PATH.
 *
 *   pCmd  path of the program and its arguments, with blanks between them (see COM_ParserCMD)
 *   pPid  NULL, or receives the process number while the program runs, so that another thread can
 *         kill it, and 0 when it has ended (before the number can be given to another process)
 *
 * SIGINT and SIGQUIT are ignored by the whole process and SIGCHLD is blocked in this thread until
 * the program has ended, so only one thread at a time should run commands. The program has the
 * actions and the mask of before and no descriptor but 0, 1 and 2. What the caller printed is
 * flushed first.
 *
 * Returns the wait status as waitpid has it; 127 as the exit code says that the program could not
 * be executed, which is then logged. -1 when there is no command, no process can be made, signals
 * cannot be set or restored, or the status is not to be had (as when SIGCHLD is ignored). */
int COM_System(const char *pCmd, int *pPid);

/* Replaces this process by a program.
 *
 *   pCmd  words with blanks (0x20 alone) between them; the first is the program's path. At most 127
 *         words of at most 127 bytes
 *
 * Returns only when that fails: -1, with a log line. A command that does not fit is not cut but
 * refused ("Argument list too long"), so that it never runs as something else. */
int COM_ParserCMD(const char *pCmd);

/* Sends SIGTERM to a process and gives it time; whether it has ended is not looked at.
 *
 *   pid   above 0
 *   usec  microseconds to wait after the signal, 0 for none
 *
 * Returns 0 when the signal was sent, else -1. */
int COM_KillPid(int pid, unsigned usec);

/* Signals one process.
 *
 *   pName  beginning of the program's path as it was started (/proc/<pid>/cmdline, first 79 bytes),
 *          or NULL
 *   pid    used when pName is NULL
 *   sig    signal number
 *
 * With a name the first match in the order of /proc is taken. That order begins with the caller's
 * own entry, "self", which ends the search: a process cannot signal its own program by name.
 *
 * Returns what kill returned, or -1. */
int COM_KillProcess(const char *pName, int pid, int sig);

/* A process and the last state seen; the head of the entries of the thread registry. */
typedef struct tProcState {
    int32_t pid;
    char state[4]; /* letter of /proc/<pid>/stat, NUL-terminated, see proc(5) */
} tProcState;

/* Reads a process's state into pProc->state.
 *
 * Returns 0 for a process that runs or sleeps, -1 for one that is stopped (T) or a zombie (Z), or
 * whose state cannot be read; the state text is then as it was. The text is the third word of the
 * file, split at blanks and "/": a program name that holds one of these shows a part of itself. */
int COM_CheckProcState(tProcState *pProc);

/* Sleeps at least as long as asked, also when signals interrupt: what is left is slept in rounds of
 * 0.1 milliseconds. The time is that of gettimeofday, in whole microseconds.
 *
 *   pTime      time to sleep
 *   maxRounds  rounds at the most; when the count reaches it, that is logged
 *
 * Returns the number of rounds, 0 when the first sleep was enough; -1 when pTime is NULL. */
int COM_SleepAtLeast(const struct timespec *pTime, int maxRounds);

/* Brings a network interface up or down with /sbin/ifconfig.
 *
 * Returns the result of COM_System, or -1 when the caller is not root or the name is too long for a
 * command of 255 bytes. */
int COM_IfUp(const char *pIfName);
int COM_IfDown(const char *pIfName);

/* Calls pFn(pArg) with the mutex locked.
 *
 * Returns what pFn returned; -1, and pFn is not called, when the mutex cannot be locked. A thread
 * that is cancelled inside pFn unlocks the mutex. */
int COM_CallLocked(pthread_mutex_t *pMutex, void *pArg, int (*pFn)(void *pArg));

#ifdef __cplusplus
}
#endif

#endif
