#ifndef TALVEK_TESTS_DNS_SCRIPTED_SERVER_H
#define TALVEK_TESTS_DNS_SCRIPTED_SERVER_H

#include <netinet/in.h>
#include <stdint.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dns/DNS.h"

namespace talvek::test {

using Bytes = std::vector<uint8_t>;

// Runs `body` in a private network with loopback up, and with this resolv.conf in /etc. `worlds`
// adds other private worlds (private_world.h).
void RunWithResolvConf(const std::string &resolvConf, const std::function<void()> &body,
                       unsigned worlds = 0);

// A name server on port 53 that answers each query with the datagrams of a script. `nth` counts the
// queries from 0.
class ScriptedServer {
  public:
    using Script = std::function<std::vector<Bytes>(const Bytes &query, int nth)>;

    ScriptedServer(const char *pAddress, Script script);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer &) = delete;
    ScriptedServer &operator=(const ScriptedServer &) = delete;

    std::vector<Bytes> Queries();       // received so far
    std::vector<uint16_t> FromPorts();  // the port that each one came from

  private:
    void Serve();

    Script script_;
    int socket_;
    int stop_;
    std::mutex mutex_;
    std::vector<Bytes> queries_;
    std::vector<uint16_t> ports_;
    std::thread thread_;
};

// The script of a server that does not answer.
std::vector<Bytes> Deaf(const Bytes &query, int nth);

// Builds a response (RFC 1035, 4.1) after the question of a query.
class Builder {
  public:
    enum Section : size_t { kAnswer = 6, kAuthority = 8, kAdditional = 10 };  // offset of the count
    static constexpr size_t kQuestion = 12;  // offset of the name asked for

    explicit Builder(const Bytes &query, uint16_t flags = 0x8180);

    // Adds an A record of 16 bytes, whose owner is a pointer to the name at `owner`.
    Builder &A(Section section, size_t owner, const char *pAddress, uint32_t ttl = 3600);
    // Adds a record of any type with a compressed owner.
    Builder &Record(Section section, size_t owner, uint16_t type, uint32_t ttl, const Bytes &data);
    // Adds an MX answer with an exchanger in the domain asked for; returns the offset of its name.
    size_t Mx(uint16_t preference, const std::string &label);

    [[nodiscard]] const Bytes &bytes() const { return bytes_; }

  private:
    Bytes bytes_;
};

// The query for a name, written from RFC 1035 without the code under test.
Bytes QueryFor(const std::string &name, uint16_t type);

uint32_t Address(const char *pText);
struct sockaddr_in ServerAddress(const char *pText);

// A result array that shows every write.
struct Results {
    static constexpr uint8_t kFill = 0xEE;
    tDnsAddrEntry entries[DNS_MAX_ENTRIES];

    Results();
    tDnsAddrEntry &operator[](size_t i) { return entries[i]; }
    // Whether the entries from this one on are unchanged.
    [[nodiscard]] bool UntouchedFrom(size_t first) const;
};

}  // namespace talvek::test

bool operator==(const tDnsAddrEntry &a, const tDnsAddrEntry &b);
std::ostream &operator<<(std::ostream &out, const tDnsAddrEntry &entry);

#endif
