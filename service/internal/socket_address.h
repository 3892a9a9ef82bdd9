#ifndef TALVEK_SERVICE_INTERNAL_SOCKET_ADDRESS_H
#define TALVEK_SERVICE_INTERNAL_SOCKET_ADDRESS_H

#include <sys/socket.h>
#include <sys/un.h>

namespace talvek {

// The path of the service's socket and the address made of it.
struct SocketAddress {
    explicit SocketAddress(const char *pSocketPath);  // null for the usual path

    [[nodiscard]] const sockaddr *get() const {
        return reinterpret_cast<const sockaddr *>(&address);
    }

    char path[128];       // as given, cut to 127 characters
    sockaddr_un address;  // the path cut once more, to 107 characters
    socklen_t length;     // of the family and the characters of the cut path, without a NUL
};

}  // namespace talvek

#endif
