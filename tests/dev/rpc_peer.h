#ifndef TALVEK_TESTS_DEV_RPC_PEER_H
#define TALVEK_TESTS_DEV_RPC_PEER_H

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/byte_reader.h"
#include "support/command.h"
#include "support/private_world.h"

// Scripted RPC servers on loopback, and the messages that they send (RFC 5531, 9 and 11).

namespace talvek::test {

using Bytes = std::vector<uint8_t>;

inline void Put32(Bytes &bytes, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<uint8_t>(value >> shift));
    }
}

inline Bytes Words(const std::vector<uint32_t> &words) {
    Bytes bytes;
    for (const uint32_t word : words) {
        Put32(bytes, word);
    }
    return bytes;
}

inline uint32_t Get32(const Bytes &bytes, size_t at) {
    return BigEndianReader{bytes.data(), bytes.size()}.U32(at);
}

inline Bytes operator+(Bytes left, const Bytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes Fragment(bool last, const Bytes &body) {
    return Words({(last ? 0x80000000u : 0u) | static_cast<uint32_t>(body.size())}) + body;
}

// The reply to a call: its xid, REPLY, MSG_ACCEPTED, an empty verifier, the accept_stat, and what
// belongs to it.
inline Bytes Reply(const Bytes &call, uint32_t acceptState,
                   const std::vector<uint32_t> &result = {}) {
    return Words({Get32(call, 0), 1, 0, 0, 0, acceptState}) + Words(result);
}

// The xid, REPLY, MSG_DENIED, and what belongs to it.
inline Bytes Denial(const Bytes &call, const std::vector<uint32_t> &reason) {
    return Words({Get32(call, 0), 1, 1}) + Words(reason);
}

inline sockaddr_in Loopback(in_port_t port) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    at.sin_port = htons(port);
    return at;
}

inline int BoundSocket(int type, in_port_t port) {
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in at = Loopback(port);
    EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr *>(&at), sizeof at)) << strerror(errno);
    return fd;
}

// A listener whose queue is full drops new connections. It lasts as long as the process.
inline void MakeFullListener(in_port_t port) {
    EXPECT_EQ(0, listen(BoundSocket(SOCK_STREAM, port), 0));
    const sockaddr_in at = Loopback(port);
    for (int i = 0; i < 3; ++i) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        EXPECT_TRUE(connect(fd, reinterpret_cast<const sockaddr *>(&at), sizeof at) == 0 ||
                    errno == EINPROGRESS);
    }
}

// Runs `body` in a network that has only a loopback interface.
inline void WithLoopback(const std::function<void()> &body, unsigned worlds = 0) {
    RunInPrivateWorld(kMounts | kNetwork | worlds, [&] {
        RunCommand("ip link set lo up");
        body();
    });
}

// An RPC server that records the calls and replies as `answer` returns.
class RpcPeer {
  public:
    using Answer = std::function<std::optional<Bytes>(const Bytes &call)>;

    static std::optional<Bytes> Accept(const Bytes &call) { return Reply(call, 0); }
    static std::optional<Bytes> StaySilent(const Bytes &) { return std::nullopt; }

    RpcPeer(int type, in_port_t port, Answer answer)
        : type_(type), answer_(std::move(answer)), socket_(BoundSocket(type, port)) {
        if (type == SOCK_STREAM) {
            EXPECT_EQ(0, listen(socket_, 5));
        }
        EXPECT_EQ(0, pipe2(stop_, O_CLOEXEC));
        thread_ = std::thread{[this] { Serve(); }};
    }
    ~RpcPeer() {
        close(stop_[1]);
        thread_.join();
        close(stop_[0]);
        close(socket_);
    }
    RpcPeer(const RpcPeer &) = delete;
    RpcPeer &operator=(const RpcPeer &) = delete;

    std::vector<Bytes> Calls() {
        const std::lock_guard lock{mutex_};
        return calls_;
    }
    // The calls when there are `count` of them.
    std::vector<Bytes> AwaitCalls(size_t count) {
        std::unique_lock lock{mutex_};
        called_.wait(lock, [&] { return calls_.size() >= count; });
        return calls_;
    }
    [[nodiscard]] in_port_t sourcePort() const { return sourcePort_; }
    [[nodiscard]] int connections() const { return connections_; }

  private:
    bool Wait(int fd) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {stop_[0], POLLIN, 0}};
        while (poll(fds, 2, -1) < 0) {
        }
        return fds[1].revents == 0;
    }

    void Serve() {
        while (Wait(socket_)) {
            sockaddr_in from{};
            socklen_t size = sizeof from;
            auto *pFrom = reinterpret_cast<sockaddr *>(&from);
            if (type_ == SOCK_STREAM) {
                const int fd = accept4(socket_, pFrom, &size, SOCK_CLOEXEC);
                sourcePort_ = ntohs(from.sin_port);
                ++connections_;
                ServeStream(fd);
                close(fd);
            } else {
                Bytes call(9000);
                const ssize_t count = recvfrom(socket_, call.data(), call.size(), 0, pFrom, &size);
                sourcePort_ = ntohs(from.sin_port);
                call.resize(static_cast<size_t>(count));
                if (const std::optional<Bytes> reply = Take(call)) {
                    sendto(socket_, reply->data(), reply->size(), 0, pFrom, size);
                }
            }
        }
    }

    void ServeStream(int fd) {
        Bytes bytes;
        while (Wait(fd)) {
            uint8_t block[4096];
            const ssize_t count = read(fd, block, sizeof block);
            if (count <= 0) {
                return;
            }
            bytes.insert(bytes.end(), block, block + count);
            if (bytes.size() < 4 || bytes.size() < 4 + (Get32(bytes, 0) & 0x7FFFFFFF)) {
                continue;
            }
            EXPECT_EQ(0x80000000u | (bytes.size() - 4), Get32(bytes, 0));
            if (const std::optional<Bytes> reply = Take({bytes.begin() + 4, bytes.end()})) {
                const Bytes record = Fragment(true, *reply);
                // The client may have hung up.
                sendto(fd, record.data(), record.size(), MSG_NOSIGNAL, nullptr, 0);
            }
            bytes.clear();
        }
    }

    std::optional<Bytes> Take(const Bytes &call) {
        const std::lock_guard lock{mutex_};
        calls_.push_back(call);
        called_.notify_all();
        return answer_(call);
    }

    int type_;
    Answer answer_;
    int socket_;
    int stop_[2];
    std::mutex mutex_;
    std::condition_variable called_;
    std::vector<Bytes> calls_;
    std::atomic<in_port_t> sourcePort_ = 0;
    std::atomic<int> connections_ = 0;
    std::thread thread_;
};

// Accepts one connection, reads one call and passes both to `talk`, which may reply in any way. The
// connection is closed when `talk` returns.
class TcpTalker {
  public:
    TcpTalker(in_port_t port, std::function<void(int fd, const Bytes &call)> talk)
        : socket_(BoundSocket(SOCK_STREAM, port)) {
        EXPECT_EQ(0, listen(socket_, 5));
        thread_ = std::thread{[this, talk = std::move(talk)] {
            const int fd = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
            Bytes call(4096);
            const ssize_t count = read(fd, call.data(), call.size());
            EXPECT_GT(count, 4);
            call.resize(static_cast<size_t>(count));
            call.erase(call.begin(), call.begin() + 4);
            talk(fd, call);
            close(fd);
        }};
    }
    ~TcpTalker() {
        thread_.join();
        close(socket_);
    }
    TcpTalker(const TcpTalker &) = delete;
    TcpTalker &operator=(const TcpTalker &) = delete;

    // False when the client has hung up.
    static bool Send(int fd, const Bytes &bytes) {
        return sendto(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL, nullptr, 0) ==
               ssize_t(bytes.size());
    }
    static void AwaitHangUp(int fd) {
        uint8_t byte;
        while (read(fd, &byte, 1) > 0) {
        }
    }

  private:
    int socket_;
    std::thread thread_;
};

// Takes one datagram and hands it to `talk` with what sends datagrams back.
class UdpTalker {
  public:
    using Send = std::function<void(const Bytes &)>;

    UdpTalker(in_port_t port, std::function<void(const Bytes &call, const Send &send)> talk)
        : socket_(BoundSocket(SOCK_DGRAM, port)) {
        thread_ = std::thread{[this, talk = std::move(talk)] {
            sockaddr_in from{};
            socklen_t size = sizeof from;
            auto *pFrom = reinterpret_cast<sockaddr *>(&from);
            Bytes call(9000);
            const ssize_t count = recvfrom(socket_, call.data(), call.size(), 0, pFrom, &size);
            EXPECT_GT(count, 4);
            call.resize(static_cast<size_t>(count));
            talk(call, [&](const Bytes &bytes) {
                sendto(socket_, bytes.data(), bytes.size(), 0, pFrom, size);
            });
        }};
    }
    ~UdpTalker() {
        thread_.join();
        close(socket_);
    }
    UdpTalker(const UdpTalker &) = delete;
    UdpTalker &operator=(const UdpTalker &) = delete;

  private:
    int socket_;
    std::thread thread_;
};

}  // namespace talvek::test

#endif
