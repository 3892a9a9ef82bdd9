// The listening process: one socket, one child for each client.

#include "service/daemon.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <utility>

#include "base/cancel_guard.h"
#include "base/clock.h"
#include "base/unique_fd.h"
#include "base/wait.h"
#include "common/COMMON.h"
#include "service/handler.h"
#include "service/internal/file_id.h"
#include "service/internal/listener_signals.h"
#include "service/internal/module_log.h"
#include "service/internal/retry_pause.h"
#include "service/internal/session_table.h"
#include "service/internal/socket_address.h"
#include "service/internal/wait_round.h"

namespace {

using talvek::FileId;
using talvek::ListenerSignals;
using talvek::RetryPause;
using talvek::SocketAddress;
using talvek::UniqueFd;

constexpr int kBacklog = 1;

// Removes the socket of an earlier daemon. A path too long for an address is bound truncated, so
// the file of the truncated path is removed too.
void RemoveStaleSocket(const SocketAddress &at) {
    COM_RemoveRealFile(at.path);
    if (strcmp(at.path, at.address.sun_path) != 0 && FileId{at.address.sun_path}.known) {
        COM_RemoveRealFile(at.address.sun_path);
    }
}

// For an address without a path the kernel would choose a name that no client knows.
int BindTo(int fd, const SocketAddress &at) {
    if (at.address.sun_path[0] == '\0') {
        errno = EINVAL;
        return -1;
    }
    return bind(fd, at.get(), at.length);
}

// Binds, and stores the socket's file for the signal handler, which removes it.
int BindAsOwn(int fd, const SocketAddress &at, const ListenerSignals &signals) {
    signals.Block();
    const int result = BindTo(fd, at);
    if (result == 0) {
        ListenerSignals::SetSocket(at.address.sun_path);
    }
    signals.Unblock();
    return result;
}

UniqueFd Listen(const SocketAddress &at, const ListenerSignals &signals) {
    // Non-blocking: when a client gives up between the wait and accept, accept must not block.
    UniqueFd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (!fd) {
        LOG_ERRNO_PLAIN("socket(AF_UNIX) failed : %s\n");
        return fd;
    }
    RemoveStaleSocket(at);
    if (BindAsOwn(fd.get(), at, signals) == -1) {
        LOG_ERRNO_PLAIN("bind(%s, %d) failed : %s\n", at.address.sun_path,
                        static_cast<int>(at.length));
        fd.Reset();
    } else if (listen(fd.get(), kBacklog) == -1) {
        LOG_ERRNO_PLAIN("listen(%d, 1) failed : %s\n", fd.get());
        fd.Reset();
    }
    return fd;
}

// Whether accept failed because the process or the machine has no room for one more connection now.
bool IsOutOfRoom(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

class Listener {
  public:
    Listener(const SocketAddress &at, tTalvekClient &client, ListenerSignals &signals, UniqueFd fd)
        : at_(at), client_(client), signals_(signals), fd_(std::move(fd)) {}

    // Returns in a child, when its client has been served.
    void Run();

  private:
    [[nodiscard]] bool WaitForClient() const;
    [[nodiscard]] bool ServeClient();
    [[nodiscard]] bool Accept();
    void HandleFailedAccept(int error);

    const SocketAddress &at_;
    tTalvekClient &client_;
    ListenerSignals &signals_;
    UniqueFd fd_;
    RetryPause pause_;
};

void Listener::Run() {
    for (;;) {
        if (WaitForClient() && ServeClient()) {
            return;
        }
    }
}

bool Listener::WaitForClient() const {
    const int ready = talvek::WaitReady(fd_.get(), POLLIN, talvek::kWaitRoundMs);
    if (ready == -1) {
        const int error = errno;
        COM_PrintTimeStamp(TALVEK_MODULE, __LINE__);
        printf("select(%d[%s]) error : %s\n", fd_.get(), at_.address.sun_path, strerror(error));
        fflush(stdout);
    }
    return ready > 0;
}

// Accepts a client and forks its child; returns true in the child. SIGTERM and SIGINT are blocked
// from accept to fork, so an accepted client always gets its child. Everything that may block comes
// after the fork.
bool Listener::ServeClient() {
    fflush(stdout);  // the child would print what is buffered here once more
    signals_.Block();
    const bool accepted = Accept();
    const pid_t child = accepted ? fork() : -1;
    const int error = errno;
    if (child == 0) {
        fd_.Reset();
        signals_.ReleaseInChild();
        TALVEK_DaemonHandler(&client_);
        return true;
    }
    signals_.Unblock();
    if (!accepted) {
        HandleFailedAccept(error);
        return false;
    }
    if (child == -1) {
        LOG_PLAIN("Can't fork() child : %s\n", strerror(error));
        COM_CloseFd(&client_.fd);
        return false;
    }
    // While this end is open, the client does not notice that its handler has ended. A log that
    // nobody reads must not keep it open.
    if (talvek::WaitReady(STDOUT_FILENO, POLLOUT, 0) == 0) {
        COM_CloseFd(&client_.fd);
    }
    LOG_PLAIN("PID[%d][%d] fork() to handle client()\n", client_.daemon_pid, child);
    COM_CloseFd(&client_.fd);  // does nothing if it is closed
    return false;
}

bool Listener::Accept() {
    sockaddr_un peer;
    socklen_t length = sizeof peer;
    client_.fd = accept4(fd_.get(), reinterpret_cast<sockaddr *>(&peer), &length, SOCK_CLOEXEC);
    if (client_.fd == -1) {
        return false;
    }
    pause_.Succeed();
    // Wraps around after 2^31 clients.
    client_.number = static_cast<int32_t>(static_cast<uint32_t>(client_.number) + 1);
    return true;
}

// A client for which there is no room stays in the queue, and the socket stays readable. Without a
// pause the loop would do nothing but fail.
void Listener::HandleFailedAccept(int error) {
    if (error == EAGAIN) {
        return;
    }
    const bool full = IsOutOfRoom(error);
    if (!full || pause_.Fail(talvek::MonotonicMs())) {
        LOG_PLAIN("[%s] : accept() failed : %s\n", at_.address.sun_path, strerror(error));
    }
    if (full) {
        const struct timespec time = {static_cast<time_t>(pause_.pauseMs() / 1000),
                                      static_cast<long>(pause_.pauseMs() % 1000 * 1'000'000)};
        nanosleep(&time, nullptr);
    }
}

}  // namespace

int TALVEK_Daemon(const char *pSocketPath) {
    const talvek::CancelGuard guard;
    talvek::InitSessions();
    tTalvekClient client = {};
    client.daemon_pid = getpid();
    client.fd = -1;

    const SocketAddress address{pSocketPath};
    ListenerSignals signals;
    UniqueFd fd = Listen(address, signals);
    if (!fd) {
        return -1;
    }
    srandom(static_cast<unsigned>(time(nullptr)));
    Listener{address, client, signals, std::move(fd)}.Run();
    return -1;
}
