#ifndef TALVEK_SERVICE_DAEMON_H
#define TALVEK_SERVICE_DAEMON_H

#ifdef __cplusplus
extern "C" {
#endif

/* Listens for clients and serves each one in a child process of its own. For a process without
 * other threads.
 *
 *   pSocketPath  the socket to bind, cut to TALVEK_SOCKET_PATH_MAX characters; NULL for
 *                TALVEK_SOCKET_PATH. The file at the path is removed first (COM_RemoveRealFile)
 *
 * The caller must ignore SIGCHLD, so that finished children leave no zombies. The daemon ignores
 * SIGPIPE and SIGXFSZ.
 *
 * Returns -1 when the socket cannot be set up, with the caller's signal actions and mask restored;
 * and -1 in each child after its client has been served: the caller then ends the process. The
 * listening process does not return. SIGTERM and SIGINT end it: it removes the socket if that is
 * still its own, and dies of the signal. They act at any point, even if the caller had ignored or
 * blocked them, and even while a full pipe or a stopped terminal blocks a log line. Children then
 * serve their clients to the end.
 *
 * A child starts with the default actions of SIGTERM and SIGINT and with an empty signal mask. */
int TALVEK_Daemon(const char *pSocketPath);

#ifdef __cplusplus
}
#endif

#endif
