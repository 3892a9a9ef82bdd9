#ifndef TALVEK_SERVICE_INTERNAL_SOCKET_ADDRESS_H
#define TALVEK_SERVICE_INTERNAL_SOCKET_ADDRESS_H

#include <sys/socket.h>
#include <sys/un.h>

namespace talvek {

// The path of the daemon's socket, and its address.
struct SocketAddress {
    explicit SocketAddress(const char *pSocketPath);  // null for TALVEK_SOCKET_PATH

    [[nodiscard]] const sockaddr *get() const {
        return reinterpret_cast<const sockaddr *>(&address);
    }

    char path[128];       // cut to 127 characters
    sockaddr_un address;  // the path cut to TALVEK_SOCKET_PATH_MAX characters
    socklen_t length;     // of the family and the path in the address, without a NUL
};

}  // namespace talvek

#endif
