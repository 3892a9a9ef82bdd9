#ifndef TALVEK_COMMON_COMMAND_H
#define TALVEK_COMMON_COMMAND_H

/* Commands without a shell, and the control of processes: running, signalling, reading the state,
 * sleeping. Failures are logged with the module name COMMON and the entry's own name. */

#include <pthread.h>
#include <stdint.h>

#include "wide_types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    COM_COMMAND_WORDS = 127,     /* most words of a command, the program's path included */
    COM_COMMAND_WORD_SIZE = 128, /* bytes of the longest word with its NUL */
    COM_NOT_EXECUTED = 127       /* exit code of a command whose program cannot be executed */
};

/* Runs a program and waits for its end, with the signals as system() has them but without a shell:
 * there is no quoting, redirection or expansion, and no search through PATH.
 *
 *   pCmd  path of the program and its arguments, with blanks between them (see COM_ParserCMD)
 *   pPid  NULL, or receives the process id while the program runs, so that another thread can kill
 *         it, and 0 when it has ended (before another process can get the same id). Read it with
 *         __atomic_load_n.
 *
 * SIGINT and SIGQUIT are ignored by the whole process and SIGCHLD is blocked in this thread until
 * the program has ended, so only one thread at a time should run commands. The program starts with
 * the signal actions and the mask from before the call, and with no descriptor but 0, 1 and 2.
 * Standard output is flushed first. The cost does not grow with the memory of the caller. A signal
 * that a handler of the caller catches ends the program if it arrives while the program starts.
 *
 * Returns the wait status as waitpid has it. When the program cannot be executed that is logged (by
 * the name of COM_ParserCMD) and the exit code is COM_NOT_EXECUTED. -1 when pCmd is NULL, no
 * process can be made, signals cannot be set or restored, or there is no status (for example
 * because SIGCHLD is ignored). */
int COM_System(const char *pCmd, int *pPid);

/* Replaces this process by a program.
 *
 *   pCmd  at most COM_COMMAND_WORDS words of less than COM_COMMAND_WORD_SIZE bytes, separated by
 *         blanks (0x20 alone); the first is the program's path
 *
 * Returns only when that fails: -1, with a log line. A command that does not fit is refused
 * ("Argument list too long") and not cut, so that it never runs as another one. */
int COM_ParserCMD(const char *pCmd);

/* Sends SIGTERM to a process and then waits; whether the process has ended is not checked.
 *
 *   pid   above 0
 *   usec  microseconds to wait after the signal, 0 for none
 *
 * Returns 0 when the signal was sent, else -1. */
int COM_KillPid(int pid, unsigned usec);

/* Signals one process.
 *
 *   pName  beginning of the path that the program was started by (/proc/<pid>/cmdline, first 79
 * bytes), or NULL pid    the process, above 0; used when pName is NULL sig    signal number
 *
 * With a name the first match in the order of /proc is taken. That order begins with the caller's
 * own entry, "self", which ends the search: a process cannot signal its own program by name.
 *
 * Returns what kill returned; -1 also when pid is below 1 or nothing matches (neither is logged).
 */
int COM_KillProcess(const char *pName, int pid, int sig);

/* A process and its last known state; the head of the entries of the thread registry. */
typedef struct tProcState {
    int32_t pid;
    char state[4]; /* state letter of /proc/<pid>/stat, see proc(5), NUL-terminated */
} tProcState;

/* Reads a process's state into pProc->state. Nothing is logged.
 *
 * Returns 0 for a process that runs or sleeps, -1 for one that is stopped (T) or a zombie (Z), or
 * whose state cannot be read; the text is unchanged then. The text is the third word of the file,
 * split at blanks and "/", and cut to 3 characters: for a program name that contains one of these,
 * it is a part of the name. */
int COM_CheckProcState(tProcState *pProc);

/* Sleeps at least as long as asked, also when signals interrupt: the rest is slept in rounds of
 * 0.1 milliseconds. The time is that of gettimeofday, in whole microseconds. A thread can be
 * cancelled here.
 *
 *   pTime      time to sleep
 *   maxRounds  most rounds; when the count reaches it, that is logged
 *
 * Returns the number of rounds, 0 when the first sleep was enough; -1 when pTime is NULL. */
int COM_SleepAtLeast(const struct timespec *pTime, int maxRounds);

/* Brings a network interface up or down with /sbin/ifconfig.
 *
 *   pIfName  the interface; the whole command may have 255 bytes
 *
 * Returns the result of COM_System; -1 when the caller is not root or the name is NULL or too long
 * (logged). */
int COM_IfUp(const char *pIfName);
int COM_IfDown(const char *pIfName);

/* Calls pFunction(pArg) with the mutex locked. A thread that is cancelled inside pFunction unlocks
 * the mutex.
 *
 * Returns what pFunction returned; -1, and pFunction is not called, when the mutex cannot be locked
 * (logged) or a pointer other than pArg is NULL. */
int COM_CallLocked(pthread_mutex_t *pMutex, void *pArg, int (*pFunction)(void *pArg));

#ifdef __cplusplus
}
#endif

#endif
