// Tells an NFS server that a mount of its export is gone: the UMNT call of the MOUNT protocol,
// version 3 (RFC 1813, 5.2.3), over ONC RPC (RFC 5531).

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "base/unique_fd.h"
#include "dev/internal/module_log.h"
#include "dev/internal/nfs_umount.h"
#include "dev/internal/rpc_client.h"
#include "dev/internal/rpc_socket.h"

namespace talvek {
namespace {

constexpr unsigned long kMountProgram = 100005;
constexpr unsigned long kMountVersion = 3;
constexpr unsigned long kUmntProcedure = 3;
constexpr unsigned kMaxPath = 1024;  // MNTPATHLEN

constexpr unsigned long kPortmapProgram = 100000;
constexpr unsigned long kPortmapVersion = 2;
constexpr unsigned long kGetPortProcedure = 3;
constexpr in_port_t kPortmapPort = 111;

constexpr rpc::Timeout kAnswerTimeout{rpc::kAnswerSeconds, 0};
constexpr rpc::Timeout kRepeatInterval{1, 0};
constexpr rpc::Timeout kSendOnly{0, 0};

// Lets the calling thread meet no cancellation, since the RPC library takes locks that a cancelled
// thread would never give back, and no SIGPIPE, which a server that hangs up would cause in it.
class UndisturbedThread {
  public:
    UndisturbedThread() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState_);
        sigset_t pending;
        sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_, &mask_);
    }
    ~UndisturbedThread() noexcept(false) {
        constexpr timespec kNoWait{0, 0};
        while (!wasPending_ && sigtimedwait(&pipe_, nullptr, &kNoWait) == SIGPIPE) {
        }
        pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
        pthread_setcancelstate(cancelState_, nullptr);
    }
    UndisturbedThread(const UndisturbedThread &) = delete;
    UndisturbedThread &operator=(const UndisturbedThread &) = delete;

  private:
    int cancelState_;
    bool wasPending_;
    sigset_t pipe_;
    sigset_t mask_;
};

// The value of an option "name=value" in a list with commas, cut to the block; false when the
// option is not there. "addr=" is not found in "mountaddr=".
bool GetOption(const char *pOptions, const char *pName, char *pValue, size_t size) {
    const size_t nameLength = strlen(pName);
    for (const char *pAt = pOptions; pAt != nullptr;) {
        if (strncmp(pAt, pName, nameLength) == 0) {
            const char *pBegin = pAt + nameLength;
            snprintf(pValue, size, "%.*s", static_cast<int>(strcspn(pBegin, ",")), pBegin);
            return true;
        }
        pAt = strchr(pAt, ',');
        pAt = pAt != nullptr ? pAt + 1 : nullptr;
    }
    return false;
}

// Whom to call, taken from the entry.
struct MountDaemon {
    char host[DEV_MOUNT_TEXT_SIZE];
    const char *path;  // in the entry
    char address[DEV_MOUNT_TEXT_SIZE];
    in_port_t port;  // 0: not known
    bool overTcp;
};

bool FindMountDaemon(const tMountEntry &entry, MountDaemon &daemon) {
    const char *pColon = strchr(entry.device, ':');
    if (pColon == nullptr) {
        return false;
    }
    snprintf(daemon.host, sizeof daemon.host, "%.*s", static_cast<int>(pColon - entry.device),
             entry.device);
    daemon.path = pColon + 1;
    if (!GetOption(entry.options, "addr=", daemon.address, sizeof daemon.address)) {
        snprintf(daemon.address, sizeof daemon.address, "%s", daemon.host);
    }
    char port[16] = "0";
    GetOption(entry.options, "mountport=", port, sizeof port);
    const long number = strtol(port, nullptr, 10);
    daemon.port = number > 0 && number <= 0xFFFF ? static_cast<in_port_t>(number) : 0;
    daemon.overTcp =
        strstr(entry.options, "tcp") != nullptr && strstr(entry.options, "notcp") == nullptr;
    return true;
}

// The kernel writes the server's address in digits; a name is looked up all the same.
bool ToIpv4(const char *pAddress, in_addr &address) {
    if (inet_pton(AF_INET, pAddress, &address) == 1) {
        return true;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo *pFound = nullptr;
    if (getaddrinfo(pAddress, nullptr, &hints, &pFound) != 0) {
        return false;
    }
    sockaddr_in first;
    memcpy(&first, pFound->ai_addr, sizeof first);
    freeaddrinfo(pFound);
    address = first.sin_addr;
    return true;
}

sockaddr_in At(in_addr address, in_port_t port) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr = address;
    at.sin_port = htons(port);
    return at;
}

// One RPC client with the socket under it, which the library does not close.
class RpcClient {
  public:
    explicit RpcClient(const rpc::Library &library) : library_(library) {}
    ~RpcClient() noexcept(false) {
        if (client_ != nullptr) {
            client_->ops->destroy(client_);
        }
    }
    RpcClient(const RpcClient &) = delete;
    RpcClient &operator=(const RpcClient &) = delete;

    explicit operator bool() const { return client_ != nullptr; }
    [[nodiscard]] rpc::Client *get() const { return client_; }

    bool CreateTcp(sockaddr_in server, unsigned long program, unsigned long version) {
        socket_ = rpc::ConnectTcp(server);
        if (!socket_ || !relay_.Open()) {
            return FailBySystem();
        }
        int fd = socket_.get();
        client_ = library_.createTcp(&server, program, version, &fd, 0, 0);
        return client_ != nullptr;
    }

    bool CreateUdp(sockaddr_in server, unsigned long program, unsigned long version) {
        socket_ = rpc::OpenSocket(SOCK_DGRAM);
        if (!socket_) {
            return FailBySystem();
        }
        int fd = socket_.get();
        client_ = library_.CreateUdp(&server, program, version, kRepeatInterval, &fd);
        return client_ != nullptr;
    }

    int Call(unsigned long procedure, rpc::XdrProc encode, void *pArguments, rpc::XdrProc decode,
             void *pResult) {
        const auto call = [&](rpc::Timeout timeout) {
            client_->ops->control(client_, rpc::kSetTimeout, &timeout);
            return client_->ops->call(client_, procedure, encode, pArguments, decode, pResult,
                                      timeout);
        };
        return relay_ ? CallThroughRelay(call) : call(kAnswerTimeout);
    }

  private:
    // Over TCP the library makes the call twice. With a time-out of 0 it sends it and leaves,
    // saying that the time is over; when the answer has been received it makes the same call again
    // on the relay, where it finds the answer to it. How a library counts on from the number that
    // it is given differs, so it is given one for the first call as well.
    template <typename MakeCall>
    int CallThroughRelay(MakeCall makeCall) {
        unsigned long id = 0;
        client_->ops->control(client_, rpc::kGetId, &id);
        client_->ops->control(client_, rpc::kSetId, &id);
        const int status = makeCall(kSendOnly);
        if (status != rpc::kTimedOut || !relay_.Await(socket_.get())) {
            return status;
        }
        client_->ops->control(client_, rpc::kSetId, &id);
        return makeCall(kAnswerTimeout);
    }

    bool FailBySystem() {
        rpc::CreateError *pError = library_.createError();
        pError->status = rpc::kSystemError;
        pError->cause.error = errno;
        return false;
    }

    const rpc::Library &library_;
    UniqueFd socket_;
    rpc::AnswerRelay relay_;
    rpc::Client *client_ = nullptr;
};

// An argument or a result together with the library's function for it.
template <typename Value, typename Function>
struct Xdr {
    Function function;
    Value value;
};

using XdrWord = Xdr<unsigned long, int (*)(void *, void *)>;
using XdrQuery = Xdr<rpc::PortQuery, int (*)(void *, void *)>;
using XdrPath = Xdr<char *, int (*)(void *, char **, unsigned)>;

template <typename Value>
int PassXdr(void *pXdrs, void *pObject) {
    auto *pXdr = static_cast<Xdr<Value, int (*)(void *, void *)> *>(pObject);
    return pXdr->function(pXdrs, &pXdr->value);
}

int PassPath(void *pXdrs, void *pObject) {
    auto *pXdr = static_cast<XdrPath *>(pObject);
    return pXdr->function(pXdrs, &pXdr->value, kMaxPath);
}

int PassNothing(void *, void *) {
    return 1;
}

// Asks the server's portmapper for the port of its mount daemon; 0 with the library's creation
// error set when it has none. The library's own way of asking takes a minute to give up.
in_port_t AskPort(const rpc::Library &library, in_addr address, unsigned long protocol) {
    RpcClient portmapper{library};
    if (!portmapper.CreateUdp(At(address, kPortmapPort), kPortmapProgram, kPortmapVersion)) {
        return 0;
    }
    XdrQuery query{library.xdrPortQuery, {kMountProgram, kMountVersion, protocol, 0}};
    XdrWord port{library.xdrUnsignedLong, 0};
    const int status = portmapper.Call(kGetPortProcedure, PassXdr<rpc::PortQuery>, &query,
                                       PassXdr<unsigned long>, &port);
    if (status == rpc::kSuccess && port.value > 0 && port.value <= 0xFFFF) {
        return static_cast<in_port_t>(port.value);
    }
    rpc::CreateError *pError = library.createError();
    *pError = {};
    if (status == rpc::kSuccess) {
        pError->status = rpc::kNotRegistered;
    } else {
        pError->status = rpc::kPortmapperFailure;
        portmapper.get()->ops->getError(portmapper.get(), &pError->cause);
    }
    return 0;
}

bool Connect(const rpc::Library &library, const MountDaemon &daemon, in_addr address, bool overTcp,
             RpcClient &client) {
    const in_port_t port = daemon.port != 0
                               ? daemon.port
                               : AskPort(library, address, overTcp ? IPPROTO_TCP : IPPROTO_UDP);
    if (port == 0) {
        return false;
    }
    const sockaddr_in server = At(address, port);
    return overTcp ? client.CreateTcp(server, kMountProgram, kMountVersion)
                   : client.CreateUdp(server, kMountProgram, kMountVersion);
}

void CallUmnt(const rpc::Library &library, RpcClient &client, const char *pPath) {
    rpc::Auth *pOldAuth = client.get()->auth;
    rpc::Auth *pAuth = library.createUnixAuth();
    if (pAuth != nullptr) {
        client.get()->auth = pAuth;
    }
    char path[DEV_MOUNT_TEXT_SIZE];
    snprintf(path, sizeof path, "%s", pPath);
    XdrPath argument{library.xdrString, path};
    if (client.Call(kUmntProcedure, PassPath, &argument, PassNothing, nullptr) != rpc::kSuccess) {
        library.printCallError(client.get(), "Bad UMNT RPC");
    }
    if (pAuth != nullptr) {
        client.get()->auth = pOldAuth;
        pAuth->ops->destroy(pAuth);
    }
}

}  // namespace

void TellNfsServer(const char *pFunction, const tMountEntry &entry) {
    const UndisturbedThread undisturbed;
    rpc::Library library;
    const char *pReason = nullptr;
    if (!library.Load(&pReason)) {
        LOG_AS(pFunction, "the server of %s was not told : %s\n", entry.device, pReason);
        return;
    }
    MountDaemon daemon;
    in_addr address;
    if (!FindMountDaemon(entry, daemon) || !ToIpv4(daemon.address, address)) {
        LOG_AS(pFunction, "the server of %s was not told : no IPv4 address\n", entry.device);
        return;
    }
    {
        RpcClient client{library};
        if (daemon.overTcp) {
            if (Connect(library, daemon, address, true, client)) {
                CallUmnt(library, client, daemon.path);
                return;
            }
            library.printCreateError("Cannot MOUNTPROG RPC (tcp)");
        }
    }
    RpcClient client{library};
    if (!Connect(library, daemon, address, false, client)) {
        library.printCreateError("Cannot MOUNTPROG RPC");
        return;
    }
    CallUmnt(library, client, daemon.path);
}

}  // namespace talvek
