#ifndef TALVEK_COMMON_PROCESS_H
#define TALVEK_COMMON_PROCESS_H

/* Processes: pid files, stopping by program name, inherited descriptors, reading a command's
 * output. Failures are logged with the module name COMMON and the entry's own name. */

#ifdef __cplusplus
extern "C" {
#endif

/* Writes the caller's process id into a file, in decimal and without a newline.
 *
 * Always returns -1, so the result means nothing. A file that cannot be written is logged. */
int COM_SavePid(const char *pFileName);

/* Sends SIGTERM to every process whose program name contains both texts. The program name is the
 * first argument in /proc/<pid>/cmdline, up to 128 bytes. An empty text is contained in every name.
 * The caller itself is signalled too if it matches.
 *
 * Returns 0 when at least one process was signalled, else -1 (NULL is logged, and so is a /proc
 * that cannot be opened). A process that cannot be signalled is logged without a function name and
 * does not end the search. */
int COM_KillDhcpProc(const char *pFirst, const char *pSecond);

/* Closes every descriptor above 2 that /proc/<pid>/fd lists.
 *
 *   pid  the caller's own; with another one the caller's descriptors of the same numbers are closed
 *
 * Returns what closedir returned: -1 (EBADF) for the caller's own pid, because the descriptor of
 * the listing is among those closed. When the listing cannot be opened, nothing is closed and the
 * result is that of COM_Log for the message, a positive number. May be called in the child of a
 * fork in a program with threads. */
int COM_CloseFdExceptSTD(int pid);

enum { COM_COMMAND_LINE_SIZE = 256 }; /* bytes of the longest line handed over, with its NUL */

/* Receives a line of a command's output and the user argument. The line has its newline and a NUL
 * and is valid during the call; NULL means the end of the output. */
typedef void (*tComLineFn)(const char *pLine, void *pUser);

/* Runs a command line with /bin/sh and hands over each line that it writes to standard output.
 *
 *   pCmd       the command line
 *   pIgnored   not used; may be NULL
 *   pUser      passed on to pCallback
 *   pCallback  called for each line (for a longer one, once for each 255 bytes), and once more with
 *              NULL when the command has ended; may be NULL
 *
 * SIGCHLD is set to its default action, and keeps it after the call. If SIGCHLD were ignored, there
 * would be no status. The cost does not grow with the memory of the caller.
 *
 * Returns the wait status of the command as waitpid has it (256 for an exit with 1), and logs it
 * when it is not 0; -1 when the command cannot be started (pCallback is not called) or its status
 * cannot be collected. */
int COM_PopenRead(const char *pCmd, void *pIgnored, void *pUser, tComLineFn pCallback);

#ifdef __cplusplus
}
#endif

#endif
