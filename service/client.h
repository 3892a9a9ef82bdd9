#ifndef TALVEK_SERVICE_CLIENT_H
#define TALVEK_SERVICE_CLIENT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Where the daemon listens unless it is told otherwise. */
#define TALVEK_SOCKET_PATH "/var/run/TALVEK"

/* Has the daemon run a command under this process's environment and waits for its exit status.
 *
 *   pSocketPath  the daemon's socket, or NULL for TALVEK_SOCKET_PATH; cut to 107 characters
 *   pCommand     a command line for the shell, at most 1135 characters (1136 with its NUL)
 *
 * The environment is sent as far as it fits into one package: 1136 bytes with the NUL of each
 * string. The first string that does not fit and all behind it are left out, with a warning in the
 * log.
 *
 * Returns what the daemon reports: the exit status, 0 to 255, or -1 for a command that was killed
 * or could not be started. Returns -1 as well when the daemon cannot be reached or waited for, when
 * there is no memory, and when the command is NULL or too long; 1 when the exchange ends without a
 * result: the daemon closed the connection, answered with something else, or could not be written
 * to.
 *
 * Waits as long as the command runs. Calls in several threads run one after another. */
int TALVEK_Client(const char *pSocketPath, const char *pCommand);

#ifdef __cplusplus
}
#endif

#endif
