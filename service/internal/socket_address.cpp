#include "service/internal/socket_address.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "service/client.h"

namespace talvek {

// The kernel adds a NUL to the path, so the length does not count one.
SocketAddress::SocketAddress(const char *pSocketPath) : path{}, address{} {
    snprintf(path, sizeof path, "%s", pSocketPath != nullptr ? pSocketPath : TALVEK_SOCKET_PATH);
    address.sun_family = AF_UNIX;
    const size_t count = strnlen(path, sizeof address.sun_path - 1);
    memcpy(address.sun_path, path, count);
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + count);
}

}  // namespace talvek
