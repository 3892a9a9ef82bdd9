#include "service/support/wire.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "support/await.h"

namespace talvek::test {
namespace {

void Append(std::string &bytes, uint32_t value, int count) {
    for (int i = 0; i < count; ++i) {
        bytes.push_back(static_cast<char>(value >> (8 * i) & 0xFF));
    }
}

// Tests replace read and send, or make them fail, for the service; these functions use other calls.
ssize_t ReadSome(int fd, char *pBytes, size_t size) {
    const iovec part{pBytes, size};
    return readv(fd, &part, 1);
}

ssize_t WriteSome(int fd, const char *pBytes, size_t size) {
    iovec part{const_cast<char *>(pBytes), size};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    return sendmsg(fd, &message, MSG_NOSIGNAL);
}

}  // namespace

std::string Pkg::Bytes() const {
    std::string bytes;
    Append(bytes, byte0, 1);
    Append(bytes, byte1, 1);
    Append(bytes, reserved, 2);
    Append(bytes, session, 4);
    Append(bytes, sn, 2);
    Append(bytes, type, 2);
    Append(bytes, sz >= 0 ? static_cast<uint32_t>(sz) : static_cast<uint32_t>(16 + payload.size()),
           2);
    uint32_t sum = 0;
    for (size_t at = 0; at < 14; at += 2) {
        sum ^= U16(bytes, at);
    }
    Append(bytes, chksum >= 0 ? static_cast<uint32_t>(chksum) : sum, 2);
    return bytes + payload;
}

std::string RegisterPkg(const std::string &strings) {
    Pkg pkg;
    pkg.type = 1;
    pkg.payload = strings;
    return pkg.Bytes();
}

std::string CommandPkg(const std::string &command, uint32_t session) {
    Pkg pkg;
    pkg.session = session;
    pkg.sn = 1;
    pkg.type = 2;
    pkg.payload = command + '\0';
    return pkg.Bytes();
}

std::string ResultPkg(int32_t status, uint32_t session, uint16_t sn) {
    Pkg pkg;
    pkg.session = session;
    pkg.sn = sn;
    pkg.type = 5;
    Append(pkg.payload, static_cast<uint32_t>(status), 4);
    return pkg.Bytes();
}

uint16_t U16(const std::string &bytes, size_t offset) {
    return static_cast<uint16_t>(U32(bytes + std::string(2, '\0'), offset) & 0xFFFF);
}

uint32_t U32(const std::string &bytes, size_t offset) {
    uint32_t value = 0;
    if (offset + 4 <= bytes.size()) {
        for (size_t i = 0; i < 4; ++i) {
            value |= static_cast<uint32_t>(static_cast<uint8_t>(bytes[offset + i])) << (8 * i);
        }
    }
    return value;
}

std::string Hex(const std::string &bytes) {
    std::string text;
    for (const char byte : bytes) {
        char digits[4];
        snprintf(digits, sizeof digits, "%02x ", static_cast<unsigned>(static_cast<uint8_t>(byte)));
        text += digits;
    }
    return text;
}

bool Put(int fd, const std::string &bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t count = WriteSome(fd, bytes.data() + done, bytes.size() - done);
        if (count <= 0) {
            return false;
        }
        done += static_cast<size_t>(count);
    }
    return true;
}

std::string Take(int fd, size_t count) {
    std::string bytes(count, '\0');
    size_t done = 0;
    while (done < count && Readable(fd)) {
        const ssize_t got = ReadSome(fd, bytes.data() + done, count - done);
        if (got <= 0) {
            break;
        }
        done += static_cast<size_t>(got);
    }
    bytes.resize(done);
    return bytes;
}

std::string TakePkg(int fd) {
    const std::string header = Take(fd, 16);
    const size_t size = U16(header, 12);
    return size > header.size() ? header + Take(fd, size - header.size()) : header;
}

bool AtEnd(int fd) {
    char byte;
    return Readable(fd) && ReadSome(fd, &byte, 1) <= 0;
}

bool Quiet(int fd) {
    return !Readable(fd, 0);
}

sockaddr_un AddressOf(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof address.sun_path);
    memcpy(address.sun_path, path.data(), path.size());
    return address;
}

int ConnectTo(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = AddressOf(path);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int ListenAt(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = AddressOf(path);
    EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address)) << path;
    EXPECT_EQ(0, listen(fd, 16));
    return fd;
}

void AnswerOneClient(int listener, int32_t status) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    TakePkg(fd);
    Put(fd, RegisterPkg());
    TakePkg(fd);
    Put(fd, ResultPkg(status));
    close(fd);
}

}  // namespace talvek::test
