#include "dns/scripted_server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/private_world.h"

namespace talvek::test {
namespace {

void BringLoopbackUp() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    ASSERT_EQ(0, ioctl(fd, SIOCSIFFLAGS, &request)) << strerror(errno);
    close(fd);
}

void Append16(Bytes &bytes, unsigned value) {
    bytes.push_back(static_cast<uint8_t>(value >> 8));
    bytes.push_back(static_cast<uint8_t>(value));
}

void Append32(Bytes &bytes, uint32_t value) {
    Append16(bytes, value >> 16);
    Append16(bytes, value & 0xFFFF);
}

}  // namespace

void RunWithResolvConf(const std::string &resolvConf, const std::function<void()> &body,
                       unsigned worlds) {
    RunInPrivateWorld(kMounts | kNetwork | worlds, [&] {
        BringLoopbackUp();
        FreshEtc();
        WriteFile("/etc/resolv.conf", resolvConf);
        body();
    });
}

ScriptedServer::ScriptedServer(const char *pAddress, Script script)
    : script_(std::move(script)),
      socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
      stop_(eventfd(0, EFD_CLOEXEC)) {
    const struct sockaddr_in address = ServerAddress(pAddress);
    EXPECT_EQ(0, bind(socket_, reinterpret_cast<const struct sockaddr *>(&address), sizeof address))
        << pAddress << " : " << strerror(errno);
    thread_ = std::thread{[this] { Serve(); }};
}

ScriptedServer::~ScriptedServer() {
    const uint64_t one = 1;
    EXPECT_EQ(ssize_t{sizeof one}, write(stop_, &one, sizeof one));
    thread_.join();
    close(socket_);
    close(stop_);
}

void ScriptedServer::Serve() {
    for (int nth = 0;; ++nth) {
        struct pollfd fds[] = {{socket_, POLLIN, 0}, {stop_, POLLIN, 0}};
        while (poll(fds, 2, -1) == -1 && errno == EINTR) {
        }
        if (fds[1].revents != 0) {
            return;
        }
        Bytes query(2048);
        struct sockaddr_in from = {};
        socklen_t size = sizeof from;
        const ssize_t count = recvfrom(socket_, query.data(), query.size(), 0,
                                       reinterpret_cast<struct sockaddr *>(&from), &size);
        if (count < 0) {
            continue;  // an ICMP error for an answer that came too late
        }
        query.resize(static_cast<size_t>(count));
        {
            const std::lock_guard lock{mutex_};
            queries_.push_back(query);
            ports_.push_back(ntohs(from.sin_port));
        }
        for (const Bytes &answer : script_(query, nth)) {
            sendto(socket_, answer.data(), answer.size(), 0,
                   reinterpret_cast<const struct sockaddr *>(&from), sizeof from);
        }
    }
}

std::vector<Bytes> ScriptedServer::Queries() {
    const std::lock_guard lock{mutex_};
    return queries_;
}

std::vector<uint16_t> ScriptedServer::FromPorts() {
    const std::lock_guard lock{mutex_};
    return ports_;
}

std::vector<Bytes> Deaf(const Bytes & /*query*/, int /*nth*/) {
    return {};
}

Builder::Builder(const Bytes &query, uint16_t flags) : bytes_(query) {
    bytes_[2] = static_cast<uint8_t>(flags >> 8);
    bytes_[3] = static_cast<uint8_t>(flags);
}

Builder &Builder::A(Section section, size_t owner, const char *pAddress, uint32_t ttl) {
    const uint32_t addr = Address(pAddress);
    Bytes data(4);
    memcpy(data.data(), &addr, 4);
    return Record(section, owner, DNS_TYPE_A, ttl, data);
}

Builder &Builder::Record(Section section, size_t owner, uint16_t type, uint32_t ttl,
                         const Bytes &data) {
    const unsigned count = bytes_[section] * 256u + bytes_[section + 1] + 1;
    bytes_[section] = static_cast<uint8_t>(count >> 8);
    bytes_[section + 1] = static_cast<uint8_t>(count);
    Append16(bytes_, 0xC000u | static_cast<unsigned>(owner));
    Append16(bytes_, type);
    Append16(bytes_, 1);
    Append32(bytes_, ttl);
    Append16(bytes_, static_cast<unsigned>(data.size()));
    bytes_.insert(bytes_.end(), data.begin(), data.end());
    return *this;
}

size_t Builder::Mx(uint16_t preference, const std::string &label) {
    Bytes data;
    Append16(data, preference);
    data.push_back(static_cast<uint8_t>(label.size()));
    data.insert(data.end(), label.begin(), label.end());
    Append16(data, 0xC000 | kQuestion);
    Record(kAnswer, kQuestion, DNS_TYPE_MX, 3600, data);
    return bytes_.size() - data.size() + 2;
}

Bytes QueryFor(const std::string &name, uint16_t type) {
    Bytes query = {0xA9, 0xFA, 0x01, 0x00, 0, 1, 0, 0, 0, 0, 0, 0};
    std::string label;
    for (size_t i = 0; i <= name.size(); ++i) {
        if (i == name.size() || name[i] == '.') {
            query.push_back(static_cast<uint8_t>(label.size()));
            query.insert(query.end(), label.begin(), label.end());
            label.clear();
        } else {
            label += name[i];
        }
    }
    query.push_back(0);
    Append16(query, type);
    Append16(query, 1);
    return query;
}

uint32_t Address(const char *pText) {
    struct in_addr address = {};
    EXPECT_EQ(1, inet_pton(AF_INET, pText, &address)) << pText;
    return address.s_addr;
}

struct sockaddr_in ServerAddress(const char *pText) {
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    address.sin_addr.s_addr = Address(pText);
    return address;
}

Results::Results() {
    memset(entries, kFill, sizeof entries);
}

bool Results::UntouchedFrom(size_t first) const {
    for (size_t i = first; i < DNS_MAX_ENTRIES; ++i) {
        const uint8_t *pBytes = reinterpret_cast<const uint8_t *>(&entries[i]);
        for (size_t k = 0; k < sizeof entries[i]; ++k) {
            if (pBytes[k] != kFill) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace talvek::test

bool operator==(const tDnsAddrEntry &a, const tDnsAddrEntry &b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

std::ostream &operator<<(std::ostream &out, const tDnsAddrEntry &entry) {
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &entry.addr, text, sizeof text);
    return out << "{valid " << int{entry.valid} << ", name_ofs " << int{entry.name_ofs}
               << ", preference " << int{entry.preference} << ", type " << int{entry.type} << ", "
               << text << "}";
}
