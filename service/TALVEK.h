#ifndef TALVEK_SERVICE_TALVEK_H
#define TALVEK_SERVICE_TALVEK_H

/* The command service: a daemon that runs command lines for clients on the same machine.
 *
 * A client connects to the daemon's Unix-domain stream socket, registers with its own environment,
 * sends one command and receives that command's exit status. docs/package-format.md draws the
 * packages and the exchange; talvek(8) tells the same for users of the program.
 *
 * Conventions that hold for every entry:
 *
 *   - Results are signed 32-bit integers; each entry says which.
 *   - Failures are logged on standard output with the module name TALVEK.
 *   - Bytes that a peer sends are bounded by the package that they came in and by TALVEK_PKG_MAX,
 *     whatever they say about themselves.
 *   - A peer that has gone gives an error, never SIGPIPE.
 *   - Sockets are closed in the programs that are executed (FD_CLOEXEC).
 *
 * The headers are plain C11 and can be read by C++. */

#include "client.h"
#include "daemon.h"
#include "handler.h"
#include "package.h"
#include "session.h"

#endif
