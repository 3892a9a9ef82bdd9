#ifndef TALVEK_SERVICE_TALVEK_H
#define TALVEK_SERVICE_TALVEK_H

/* The command service: a daemon that runs command lines for clients on the same machine.
 *
 * A client connects to the daemon's Unix-domain stream socket, registers with its environment,
 * sends one command and receives the command's exit status. docs/package-format.md draws the
 * packages and the exchange; talvek(8) is the manual page of the program.
 *
 * Conventions that hold for every entry:
 *
 *   - Results are signed 32-bit integers: 0 or what the entry names for success, -1 for failure. A
 *     NULL argument is a failure, unless the entry gives it a meaning.
 *   - Failures are logged on standard output with the module name TALVEK, unless the entry says
 *     otherwise. errno has no meaning after a failure, except after TALVEK_SendPkg.
 *   - Texts are NUL-terminated. Sizes are in bytes.
 *   - Whatever a peer's header announces, no call reads beyond the package received or beyond
 *     TALVEK_PKG_MAX.
 *   - Writing to a peer that has closed is an error, without SIGPIPE.
 *   - Executed programs do not inherit sockets (FD_CLOEXEC).
 *   - Cancellation of a thread waits until a call is over.
 *   - TALVEK_Daemon, TALVEK_DaemonHandler, TALVEK_RunCommand and TALVEK_SetEnvFromPkg change the
 *     environment or the signal actions of the process. The other entries may be called in
 *     several threads at once.
 *   - No entry uses more than 8 KiB of stack.
 *
 * The headers are plain C11 and can be read by C++. */

#include "../common/platform.h"
#include "../common/version.h"
#include "client.h"
#include "daemon.h"
#include "handler.h"
#include "package.h"
#include "session.h"

#endif
