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

// Runs `body` in a network of its own, with loopback up, and an /etc with this resolv.conf.
// `worlds` adds other worlds of its own (private_world.h).
void RunWithResolvConf(const std::string &resolvConf, const std::function<void()> &body,
                       unsigned worlds = 0);

// A name server on port 53 that answers each query with the datagrams that the script makes of it.
// `nth` counts the queries from 0.
class ScriptedServer {
  public:
    using Script = std::function<std::vector<Bytes>(const Bytes &query, int nth)>;

    ScriptedServer(const char *pAddress, Script script);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer &) = delete;
    ScriptedServer &operator=(const ScriptedServer &) = delete;

    std::vector<Bytes> Queries();       // what arrived so far
    std::vector<uint16_t> FromPorts();  // and the port that each came from

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

// A server that hears everything and says nothing.
std::vector<Bytes> Deaf(const Bytes &query, int nth);

// Puts a response together as RFC 1035, 4.1 draws it, behind the question of a query.
class Builder {
  public:
    enum Section : size_t { kAnswer = 6, kAuthority = 8, kAdditional = 10 };  // offset of the count
    static constexpr size_t kQuestion = 12;  // where the name asked for stands

    explicit Builder(const Bytes &query, uint16_t flags = 0x8180);

    // An A record of 16 bytes: its owner is a pointer to the name at `owner`.
    Builder &A(Section section, size_t owner, const char *pAddress, uint32_t ttl = 3600);
    // A record of any type with a compressed owner.
    Builder &Record(Section section, size_t owner, uint16_t type, uint32_t ttl, const Bytes &data);
    // An MX answer to an exchanger in the domain asked for; returns where its name stands.
    size_t Mx(uint16_t preference, const std::string &label);

    [[nodiscard]] const Bytes &bytes() const { return bytes_; }

  private:
    Bytes bytes_;
};

// The query that the resolver sends for a name: written out here anew from RFC 1035.
Bytes QueryFor(const std::string &name, uint16_t type);

uint32_t Address(const char *pText);
struct sockaddr_in ServerAddress(const char *pText);

// A result array in a state that tells every write.
struct Results {
    static constexpr uint8_t kFill = 0xEE;
    tDnsAddrEntry entries[DNS_MAX_ENTRIES];

    Results();
    tDnsAddrEntry &operator[](size_t i) { return entries[i]; }
    // Entries from this one on are as they were made.
    [[nodiscard]] bool UntouchedFrom(size_t first) const;
};

}  // namespace talvek::test

bool operator==(const tDnsAddrEntry &a, const tDnsAddrEntry &b);
std::ostream &operator<<(std::ostream &out, const tDnsAddrEntry &entry);

#endif
