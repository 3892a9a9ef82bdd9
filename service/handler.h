#ifndef TALVEK_SERVICE_HANDLER_H
#define TALVEK_SERVICE_HANDLER_H

#include "package.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Serves one connection until its client closes it: takes over the client's environment into this
 * process, runs its commands, sends their statuses back.
 *
 *   pClient  fd is the connected socket; session and sn are counted on here
 *
 * Packages with a bad header or of an unknown type are logged and dropped, and so are the bytes
 * that were received behind a package which was served or dropped. A package that can never be
 * complete, because it announces more than TALVEK_PKG_MAX bytes or because the client has closed,
 * ends the connection.
 *
 * Returns -1 without touching the connection for NULL, a negative fd, no memory, and when no
 * session is free. Otherwise fd is closed and set to -1, and the result is that of the last wait or
 * reply: 0 when the last reply was written, 1 when no reply was due, -1 when waiting or the last
 * reply failed. */
int TALVEK_DaemonHandler(tTalvekClient *pClient);

/* Runs a command line with the system's shell and waits for it.
 *
 * The command finds SIGCHLD and SIGPIPE at their defaults. SIGCHLD stays at its default in the
 * calling process.
 *
 * Returns the exit status, 0 to 255; -1, with the reason on standard output, when the command was
 * killed by a signal or could not be started, and -1 for NULL. */
int TALVEK_RunCommand(const char *pCommand);

#ifdef __cplusplus
}
#endif

#endif
