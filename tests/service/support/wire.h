#ifndef TALVEK_TESTS_SERVICE_SUPPORT_WIRE_H
#define TALVEK_TESTS_SERVICE_SUPPORT_WIRE_H

#include <stdint.h>
#include <sys/un.h>

#include <string>

// One end of a connection by hand: packages are built and read without the code under test.

namespace talvek::test {

// A package; its fields are those of a good single package unless a test changes them.
struct Pkg {
    uint8_t byte0 = 0x01;
    uint8_t byte1 = 0x11;
    uint16_t reserved = 0;
    uint32_t session = 0;
    uint16_t sn = 0;
    uint16_t type = 0;
    int sz = -1;      // -1: size of header and payload
    int chksum = -1;  // -1: the correct one
    std::string payload;

    [[nodiscard]] std::string Bytes() const;
};

std::string RegisterPkg(const std::string &strings = "");                  // with their NULs
std::string CommandPkg(const std::string &command, uint32_t session = 0);  // the NUL is added
std::string ResultPkg(int32_t status, uint32_t session = 0, uint16_t sn = 2);

// Fields of bytes received; 0 beyond the end.
uint16_t U16(const std::string &bytes, size_t offset);
uint32_t U32(const std::string &bytes, size_t offset);
std::string Hex(const std::string &bytes);

// Writes all bytes; false when the peer has gone.
bool Put(int fd, const std::string &bytes);

// Reads `count` bytes, or fewer when the peer closes or is silent for kPatienceMs.
std::string Take(int fd, size_t count);

// Reads one package of the size that its header announces.
std::string TakePkg(int fd);

// Whether the peer closes and nothing is left to read.
bool AtEnd(int fd);

// Whether nothing has arrived.
bool Quiet(int fd);

// The address of the socket at `path`.
sockaddr_un AddressOf(const std::string &path);

// A connection to the socket at `path`, or -1.
int ConnectTo(const std::string &path);

// A listening socket at `path`.
int ListenAt(const std::string &path);

// A daemon's part of one exchange: accepts a client and answers its command with a status.
void AnswerOneClient(int listener, int32_t status);

}  // namespace talvek::test

#endif
