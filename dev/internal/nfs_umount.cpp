// The UMNT call of the MOUNT protocol, version 3 (RFC 1813, appendix I).

#include "dev/internal/nfs_umount.h"

#include <netdb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include "dev/internal/module_log.h"
#include "dev/internal/rpc.h"

namespace talvek {
namespace {

constexpr uint32_t MOUNT_PROGRAM = 100005;
constexpr uint32_t MOUNT_V3 = 3;
constexpr uint32_t MOUNTPROC3_UMNT = 3;

// The portmapper, version 2 (RFC 1833, 3).
constexpr uint32_t PMAP_PROG = 100000;
constexpr uint32_t PMAP_VERS = 2;
constexpr uint32_t PMAPPROC_GETPORT = 3;
constexpr in_port_t PMAP_PORT = 111;

constexpr int64_t kCallMs = 3000;
constexpr int64_t kWholeMs = 9000;

// The text after "name=" in a list of options; it ends at the next comma. NULL without the option.
const char *FindOption(const char *pOptions, const char *pName) {
    const size_t length = strlen(pName);
    while (strncmp(pOptions, pName, length) != 0) {
        pOptions = strchr(pOptions, ',');
        if (pOptions == nullptr) {
            return nullptr;
        }
        ++pOptions;
    }
    return pOptions + length;
}

// Whether an option's value is complete. Of options that do not fit, the entry has the first part,
// so the last value may be truncated.
bool IsWhole(const NfsMount &mount, const char *pValue) {
    return pValue != nullptr && (!mount.cut.options || strchr(pValue, ',') != nullptr);
}

in_port_t MountPort(const NfsMount &mount) {
    const char *pPort = FindOption(mount.entry.options, "mountport=");
    const long port = IsWhole(mount, pPort) ? strtol(pPort, nullptr, 10) : 0;
    return port > 0 && port <= UINT16_MAX ? static_cast<in_port_t>(port) : 0;
}

// The kernel writes the address of the server as a number. A name is looked up without a deadline,
// since getaddrinfo accepts none.
bool Resolve(const char *pName, size_t length, sockaddr_in &address) {
    char name[sizeof(tMountEntry::options)];
    snprintf(name, sizeof name, "%.*s", static_cast<int>(length), pName);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo *pFound = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &pFound) != 0) {
        return false;
    }
    memcpy(&address, pFound->ai_addr, sizeof address);
    freeaddrinfo(pFound);
    return true;
}

// Makes a call that ends after kCallMs, or at the deadline of the whole if that comes first.
rpc::Outcome CallPort(int type, sockaddr_in address, in_port_t port, rpc::CallMessage &call,
                      uint32_t *pResult, const Deadline &whole) {
    address.sin_port = htons(port);
    const Deadline end{std::min(kCallMs, whole.LeftMs())};
    return rpc::Call(type, address, call, pResult, end);
}

// Asks the portmapper for the port of the mount daemon.
rpc::Outcome AskPort(const sockaddr_in &address, uint32_t protocol, const Deadline &whole,
                     in_port_t &port) {
    rpc::CallMessage call{PMAP_PROG, PMAP_VERS, PMAPPROC_GETPORT, rpc::CallMessage::kNone};
    for (const uint32_t word : {MOUNT_PROGRAM, MOUNT_V3, protocol, uint32_t{0}}) {
        call.AddWord(word);
    }
    uint32_t number = 0;
    rpc::Outcome outcome = CallPort(SOCK_DGRAM, address, PMAP_PORT, call, &number, whole);
    if (outcome.status == rpc::RPC_SUCCESS) {
        port = number <= UINT16_MAX ? static_cast<in_port_t>(number) : 0;
        outcome.status = port != 0 ? rpc::RPC_SUCCESS : rpc::RPC_PROGNOTREGISTERED;
    } else if (!outcome.unconnected()) {
        outcome.cause = outcome.status;
        outcome.status = rpc::RPC_PMAPFAILURE;
    }
    return outcome;
}

// Returns NULL, or why the server cannot be called.
const char *FindServer(const NfsMount &mount, sockaddr_in &address) {
    const char *pDevice = mount.entry.device;
    if (mount.cut.device) {
        return "its path is longer than a mount entry holds";
    }
    const char *pAddress = FindOption(mount.entry.options, "addr=");
    if (mount.cut.options && !IsWhole(mount, pAddress)) {
        return "its addr= may be cut off";
    }
    const char *pColon = strchr(pDevice, ':');
    const bool found =
        pColon != nullptr &&
        (pAddress != nullptr ? Resolve(pAddress, strcspn(pAddress, ","), address)
                             : Resolve(pDevice, static_cast<size_t>(pColon - pDevice), address));
    return found ? nullptr : "no IPv4 address";
}

// Calls UMNT over TCP or UDP. Returns false, after the failure was reported, when the mount daemon
// cannot be reached.
bool CallUmnt(int type, const sockaddr_in &address, const NfsMount &mount, const Deadline &whole) {
    const bool tcp = type == SOCK_STREAM;
    in_port_t port = MountPort(mount);
    rpc::Outcome outcome;
    if (port == 0) {
        outcome = AskPort(address, tcp ? IPPROTO_TCP : IPPROTO_UDP, whole, port);
    }
    if (port != 0) {
        const char *pPath = strchr(mount.entry.device, ':') + 1;
        rpc::CallMessage call{MOUNT_PROGRAM, MOUNT_V3, MOUNTPROC3_UMNT, rpc::CallMessage::kSystem};
        call.AddOpaque(pPath, strlen(pPath));
        outcome = CallPort(type, address, port, call, nullptr, whole);
    }
    if (port == 0 || outcome.unconnected()) {
        rpc::PrintFailure(tcp ? "Cannot MOUNTPROG RPC (tcp)" : "Cannot MOUNTPROG RPC", outcome);
        return false;
    }
    if (outcome.status != rpc::RPC_SUCCESS) {
        rpc::PrintFailure("Bad UMNT RPC", outcome);
    }
    return true;
}

}  // namespace

void NotifyNfsServer(const char *pFunction, const NfsMount &mount) {
    const Deadline whole{kWholeMs};
    const char *pOptions = mount.entry.options;
    sockaddr_in address;
    const char *pReason = FindServer(mount, address);
    if (pReason != nullptr) {
        LOG_AS(pFunction, "the server of %s was not notified : %s\n", mount.entry.device, pReason);
        return;
    }
    const bool tcp = strstr(pOptions, "tcp") != nullptr && strstr(pOptions, "notcp") == nullptr;
    if (!tcp || !CallUmnt(SOCK_STREAM, address, mount, whole)) {
        CallUmnt(SOCK_DGRAM, address, mount, whole);
    }
}

}  // namespace talvek
