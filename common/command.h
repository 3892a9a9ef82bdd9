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

/* Runs a program and waits for its end. Signals are handled as by system(), but there is no shell:
 * no quoting, redirection or expansion, and no search through PATH.
 *
 *   pCmd  path of the program and its arguments, with blanks between them (see COM_ParserCMD)
 *   pPid  NULL, or receives the process id as soon as the program executes, so that another thread
 *         can kill it. The id becomes 0 when the program has ended, before another process can get
 *         the same one. Read it with __atomic_load_n.
 *
 * Until the program has ended, the whole process ignores SIGINT and SIGQUIT, and this thread blocks
 * SIGCHLD. So only one thread at a time should run commands. Standard output is flushed first. The
 * cost does not grow with the memory of the caller.
 *
 * The program starts with the descriptors 0, 1 and 2 only, and with the signal mask from before the
 * call. Signals that the caller ignored are ignored; all others have their default action, also
 * those that the caller has a handler for and those that arrive while the program starts.
 *
 * Returns the wait status of waitpid. A program that cannot be executed is logged under the name
 * COM_ParserCMD, and its exit code is COM_NOT_EXECUTED. Returns -1 when pCmd is NULL, no process
 * can be made, signals cannot be set or restored, or there is no status (for example because
 * SIGCHLD is ignored). */
int COM_System(const char *pCmd, int *pPid);

/* Replaces this process by a program.
 *
 *   pCmd  at most COM_COMMAND_WORDS words of less than COM_COMMAND_WORD_SIZE bytes, separated by
 *         blanks (0x20 alone); the first is the program's path
 *
 * Returns only when that fails: -1, with a log line. A command that does not fit is refused
 * ("Argument list too long"), because a truncated one would be another command. */
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
 *   pName  beginning of the path that the program was started by (/proc/<pid>/cmdline), at most 79
 *          bytes: a longer text matches nothing. NULL to use pid
 *   pid    the process, above 0; not used with a name
 *   sig    signal number
 *
 * With a name, the first match in the order of /proc is taken. The caller's own entry, "self",
 * precedes all processes there and ends the search if it matches: a process cannot signal its own
 * program by name.
 *
 * Returns the result of kill; -1 also when pid is below 1 or nothing matches (not logged). */
int COM_KillProcess(const char *pName, int pid, int sig);

/* A process and its last known state. Entries of the thread registry begin with these fields. */
typedef struct tProcState {
    int32_t pid;
    char state[4]; /* state letter of /proc/<pid>/stat, see proc(5), NUL-terminated */
} tProcState;

/* Reads a process's state into pProc->state. Nothing is logged.
 *
 * Returns -1 for a process that is stopped (T) or a zombie (Z); 0 for any other state. When the
 * state cannot be read, returns -1 and leaves the text unchanged.
 *
 * The text is the third word of the file, split at blanks and "/", and truncated to 3 characters.
 * If the program's name contains a blank or "/", text and result come from a part of the name. */
int COM_CheckProcState(tProcState *pProc);

/* Sleeps at least as long as asked, unless maxRounds is reached first. After a signal, the rest is
 * slept in rounds of 0.1 milliseconds. The time is that of gettimeofday, in whole microseconds. A
 * thread can be cancelled here.
 *
 *   pTime      time to sleep
 *   maxRounds  most rounds after the first sleep; a count that reaches it is logged, so 0 always is
 *
 * Returns the number of rounds, 0 when the first sleep was enough; -1 when pTime is NULL. */
int COM_SleepAtLeast(const struct timespec *pTime, int maxRounds);

/* Brings a network interface up or down with /sbin/ifconfig.
 *
 *   pIfName  the interface; the whole command has at most 255 bytes
 *
 * Returns the result of COM_System; -1 when the caller is not root, the name is NULL (neither is
 * logged), or the command is too long (logged). */
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
