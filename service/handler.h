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
 * A package with a bad header or of an unknown type is logged and dropped. Bytes received after a
 * package in the same read are dropped with it. The connection ends when the client closes it, when
 * a read fails, when a package announces more than TALVEK_PKG_MAX bytes, and when a reply cannot be
 * sent although the client has not closed. Of these only the third is logged.
 *
 * Returns -1, with the connection open, for NULL, a negative fd, no memory (none of them logged)
 * and when no session is free. Otherwise fd is closed and set to -1. The result is 0 when the last
 * reply was sent, -1 when it could not be sent or the first wait failed, and TALVEK_NO_REPLY when
 * there was none. */
int TALVEK_DaemonHandler(tTalvekClient *pClient);

/* Runs a command line with the system's shell and waits for its end.
 *
 * The command starts with the default actions of SIGCHLD, SIGPIPE and SIGXFSZ and with this
 * process's signal mask. SIGCHLD stays at its default in this process.
 *
 * Returns the exit status, 0 to 255, which is 127 when the shell cannot be executed. Returns -1,
 * with the reason on standard output, when the command was killed by a signal or no process could
 * be made for the shell; and -1 for NULL (not logged). */
int TALVEK_RunCommand(const char *pCommand);

#ifdef __cplusplus
}
#endif

#endif
