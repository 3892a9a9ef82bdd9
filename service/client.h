#ifndef TALVEK_SERVICE_CLIENT_H
#define TALVEK_SERVICE_CLIENT_H

#ifdef __cplusplus
extern "C" {
#endif

#define TALVEK_SOCKET_PATH "/var/run/TALVEK" /* the default socket of the daemon */
#define TALVEK_SOCKET_PATH_MAX 107           /* characters of a socket's path; the rest is cut */
#define TALVEK_COMMAND_MAX 1135              /* characters of a command */
#define TALVEK_NO_RESULT 1                   /* result of TALVEK_Client without a status */

/* Has the daemon run a command in this process's environment, and waits for its exit status.
 *
 *   pSocketPath  the daemon's socket, cut to TALVEK_SOCKET_PATH_MAX characters; NULL for
 *                TALVEK_SOCKET_PATH
 *   pCommand     a command line for the shell, at most TALVEK_COMMAND_MAX characters
 *
 * The environment is sent as far as it fits into one package: 1136 bytes, counting the NUL of
 * each string. The first string that does not fit and all after it are left out, with a warning
 * in the log.
 *
 * Returns the status that the daemon reports, unchanged. This daemon reports the exit status, 0 to
 * 255, or -1 for a command that was killed or for whose shell no process could be made. Returns -1
 * as well when the daemon cannot be reached or waited for, when there is no memory (not logged),
 * and when the command is NULL or too long. Returns TALVEK_NO_RESULT when the exchange ends without
 * a status: the daemon closed the connection, sent something other than a reply, or could not be
 * written to. Of these only a bad header is logged.
 *
 * Waits for as long as the command runs. A signal that runs a handler in this thread can end the
 * call with one of these failures. A command that the daemon has received runs to its end all the
 * same. Calls in several threads run one after another. */
int TALVEK_Client(const char *pSocketPath, const char *pCommand);

#ifdef __cplusplus
}
#endif

#endif
