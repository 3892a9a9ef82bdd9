#ifndef TALVEK_SERVICE_DAEMON_H
#define TALVEK_SERVICE_DAEMON_H

#ifdef __cplusplus
extern "C" {
#endif

/* Listens for clients and serves each in a child process of its own.
 *
 *   pSocketPath  the socket to make, or NULL for TALVEK_SOCKET_PATH; cut to 107 characters. What
 *                the path names before is removed (COM_RemoveRealFile).
 *
 * SIGCHLD is to be ignored by the calling process, so that children that have finished leave no
 * zombie. SIGPIPE is ignored from here on.
 *
 * Returns -1 when the socket cannot be set up, and -1 in each child after its client has been
 * served: the caller then ends the process. The listening process itself does not return. SIGTERM
 * and SIGINT end it, also where the caller had them ignored or blocked: it removes the socket if
 * the path still names its own and dies of the signal, while children finish what they do. In the
 * children the two signals are at their defaults and not blocked. */
int TALVEK_Daemon(const char *pSocketPath);

#ifdef __cplusplus
}
#endif

#endif
