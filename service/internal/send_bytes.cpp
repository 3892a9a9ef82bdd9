#include "service/internal/send_bytes.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

namespace talvek {
namespace {

// Only sockets support MSG_NOSIGNAL; any other descriptor is written with write.
ssize_t SendSome(int fd, const void *pBytes, size_t size) {
    const ssize_t count = send(fd, pBytes, size, MSG_NOSIGNAL);
    return count == -1 && errno == ENOTSOCK ? write(fd, pBytes, size) : count;
}

}  // namespace

Sent SendBytes(int fd, const void *pBytes, size_t size) {
    const char *pNext = static_cast<const char *>(pBytes);
    Sent sent{0, 0};
    while (sent.count < size) {
        sent.last = SendSome(fd, pNext + sent.count, size - sent.count);
        if (sent.last <= 0) {
            break;
        }
        sent.count += static_cast<size_t>(sent.last);
    }
    return sent;
}

}  // namespace talvek
