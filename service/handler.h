#ifndef TALVEK_SERVICE_HANDLER_H
#define TALVEK_SERVICE_HANDLER_H

#include "package.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TALVEK_NO_REPLY 1 /* result of TALVEK_DaemonHandler when no reply was due */

/* Serves one connection until its client closes it: adopts the client's environment in this
 * process, runs its commands and sends their statuses.
 *
 *   pClient  fd is the connected socket; session and sn are updated
 *
 * A package with a bad header or of an unknown type is logged and dropped. So are the bytes that
 * were received after any package in the same read. The connection ends when the client closes
 * it, when a package announces more than TALVEK_PKG_MAX bytes (logged), and when a reply cannot
 * be sent for any reason but that the client has closed (not logged).
 *
 * Returns -1, with the connection open, for NULL, a negative fd, no memory (none of them logged)
 * and when no session is free. Otherwise fd is closed and set to -1, and the result is that of
 * the last wait or reply: 0 after a reply that was sent, TALVEK_NO_REPLY before the first one, -1
 * when the wait or the last reply failed. */
int TALVEK_DaemonHandler(tTalvekClient *pClient);

/* Runs a command line with the system's shell and waits for its end.
 *
 * The command starts with the default actions of SIGCHLD and SIGPIPE and with this process's
 * signal mask. SIGCHLD stays at its default in this process.
 *
 * Returns the exit status, 0 to 255; -1, with the reason on standard output, when the command was
 * killed by a signal or could not be started; -1 for NULL. */
int TALVEK_RunCommand(const char *pCommand);

#ifdef __cplusplus
}
#endif

#endif
