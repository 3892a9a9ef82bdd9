// Scenarios of dns/.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "dns/DNS.h"
#include "faults/harness.h"
#include "support/private_world.h"

namespace talvek::faults {
namespace {

tDnsAddrEntry g_entries[DNS_MAX_ENTRIES];
constexpr const char *kAddress = "192.0.2.7";

// Answers every query for A with one record, and every other one with none (RFC 1035, 4.1).
void Serve(int fd) {
    for (;;) {
        uint8_t message[600];
        sockaddr_in from = {};
        socklen_t length = sizeof from;
        auto *peer = reinterpret_cast<sockaddr *>(&from);
        const ssize_t size = recvfrom(fd, message, 512, 0, peer, &length);
        if (size < 17) {
            continue;
        }
        auto end = static_cast<size_t>(size);
        message[2] = 0x81;  // a response, recursion desired
        message[3] = 0x80;  // recursion available, no error
        if (message[end - 3] == 1) {
            message[7] = 1;  // one answer
            const uint8_t record[] = {0xC0, 12, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4, 192, 0, 2, 7};
            memcpy(message + end, record, sizeof record);
            end += sizeof record;
        }
        sendto(fd, message, end, 0, peer, length);
    }
}

void StartServer() {
    test::WriteFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in own = {};
    own.sin_family = AF_INET;
    own.sin_port = htons(DNS_PORT);
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    CHECK(bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0);
    StartPeer([fd] { Serve(fd); });
    close(fd);
}

void CheckAddress(long result) {
    CHECK(result != DNS_OK || g_entries[0].addr == inet_addr(kAddress));
}

}  // namespace

std::vector<Scenario> DnsScenarios() {
    return {
        {"DNS_GetA",
         StartServer,
         [] { return long{DNS_GetA("host.example", g_entries, 2)}; },
         {DNS_OK, DNS_NO_ANSWER, DNS_NOT_SENT},
         CheckAddress},
        {"DNS_GetMX",
         StartServer,
         [] { return long{DNS_GetMX("user@host.example", g_entries, 2)}; },
         {DNS_OK, DNS_NO_ANSWER, DNS_NOT_SENT},
         CheckAddress},
        {"DNS_GetA, no server",
         [] { test::WriteFile("/etc/resolv.conf", "nameserver x\nnameserver 127.0.0.1\n"); },
         [] { return long{DNS_GetA("host.example", g_entries, 1)}; },
         {DNS_NO_ANSWER, DNS_NOT_SENT}},
        {"DNS_GetA, bad arguments",
         nullptr,
         [] {
             const std::string wide(DNS_MAX_NAME + 1, '.');
             return long{DNS_GetA(nullptr, g_entries, 1)} + DNS_GetA("name", g_entries, 1) +
                    DNS_GetA(wide.c_str(), g_entries, 1) + DNS_GetMX("name", g_entries, 1) +
                    DNS_GetMX(wide.c_str(), g_entries, 1) - 5 * DNS_NO_ANSWER;
         },
         {0}},
        {"DNS_ParserMX",
         nullptr,
         [] {
             const uint8_t cut[DNS_MESSAGE_SIZE] = {0xFA, 0xA9, 0x81, 0x80, 0, 1, 0, 1};
             return long{DNS_ParserMX(cut, 12, g_entries) == DNS_OK} +
                    (DNS_ParserA(cut, 12, g_entries) == DNS_OK);
         },
         {0}},
    };
}

}  // namespace talvek::faults
