// The listening process: one socket, one child for each client.

#include "service/daemon.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "common/COMMON.h"
#include "service/handler.h"
#include "service/internal/listener_signals.h"
#include "service/internal/module_log.h"
#include "service/internal/retry_pause.h"
#include "service/internal/session_table.h"
#include "service/internal/socket_address.h"
#include "service/internal/wait.h"

namespace talvek {
namespace {

constexpr int kBacklog = 1;

// What a path names at this moment.
struct FileId {
    explicit FileId(const char *pPath) {
        struct stat st;
        known = lstat(pPath, &st) == 0;
        device = known ? st.st_dev : 0;
        inode = known ? st.st_ino : 0;
    }
    bool operator==(const FileId &other) const {
        return known && other.known && device == other.device && inode == other.inode;
    }

    bool known;
    dev_t device;
    ino_t inode;
};

// Removes what is left of an earlier daemon. Where the address has room only for the head of the
// path, the head is what an earlier daemon has bound.
void RemoveStaleSocket(const SocketAddress &at) {
    COM_RemoveRealFile(at.path);
    if (strcmp(at.path, at.address.sun_path) != 0 && FileId{at.address.sun_path}.known) {
        COM_RemoveRealFile(at.address.sun_path);
    }
}

// An address without a path would have the kernel choose one that no client knows.
int BindTo(int fd, const SocketAddress &at) {
    if (at.address.sun_path[0] == '\0') {
        errno = EINVAL;
        return -1;
    }
    return bind(fd, at.get(), at.length);
}

UniqueFd Listen(const SocketAddress &at) {
    // Not blocking: a client that has gone again between select and accept must not hold up the
    // next ones, nor a signal.
    UniqueFd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (!fd) {
        LOG_ERRNO_PLAIN("socket(AF_UNIX) failed : %s\n");
        return fd;
    }
    RemoveStaleSocket(at);
    if (BindTo(fd.get(), at) == -1) {
        LOG_ERRNO_PLAIN("bind(%s, %d) failed : %s\n", at.address.sun_path,
                        static_cast<int>(at.length));
        fd.Reset();
    } else if (listen(fd.get(), kBacklog) == -1) {
        LOG_ERRNO_PLAIN("listen(%d, 1) failed : %s\n", fd.get());
        fd.Reset();
    }
    return fd;
}

int64_t NowMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// The process or the machine has no room for one more connection at this moment.
bool IsWantOfRoom(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

class Listener {
  public:
    Listener(const SocketAddress &at, tTalvekClient &client, ListenerSignals &signals, UniqueFd fd)
        : at_(at),
          bound_(at.address.sun_path),
          client_(client),
          signals_(signals),
          fd_(std::move(fd)) {}

    // Returns in a child, when its client has been served.
    void Run();

  private:
    [[nodiscard]] bool WaitForClient() const;
    [[nodiscard]] bool Accept();
    void ReportAccept(int error);
    [[nodiscard]] bool ForkedChild();
    [[noreturn]] void End(int signal) const;

    const SocketAddress &at_;
    FileId bound_;
    tTalvekClient &client_;
    ListenerSignals &signals_;
    UniqueFd fd_;
    RetryPause pause_;
};

void Listener::Run() {
    for (;;) {
        const bool ready = WaitForClient();
        if (const int signal = ListenerSignals::Stop(); signal != 0) {
            End(signal);
        }
        if (ready && Accept() && ForkedChild()) {
            return;
        }
    }
}

bool Listener::WaitForClient() const {
    const int ready = WaitReadable(fd_.get(), signals_.waitMask());
    const int error = errno;
    if (ready == -1 && ListenerSignals::Stop() == 0) {
        COM_PrintTimeStamp("TALVEK", __LINE__);
        printf("select(%d[%s]) error : %s\n", fd_.get(), at_.address.sun_path, strerror(error));
        fflush(stdout);
    }
    return ready > 0;
}

bool Listener::Accept() {
    sockaddr_un peer;
    socklen_t length = sizeof peer;
    client_.fd = accept4(fd_.get(), reinterpret_cast<sockaddr *>(&peer), &length, SOCK_CLOEXEC);
    if (client_.fd == -1) {
        ReportAccept(errno);
        return false;
    }
    pause_.Succeed();
    // Wraps around after 2^31 clients, as any other counter.
    client_.number = static_cast<int32_t>(static_cast<uint32_t>(client_.number) + 1);
    return true;
}

// The client stays in the queue while there is no room for it, and the descriptor stays readable:
// without a pause the loop would do nothing but fail.
void Listener::ReportAccept(int error) {
    if (error == EAGAIN) {
        return;
    }
    const bool full = IsWantOfRoom(error);
    if (!full || pause_.Fail(NowMs())) {
        LOG_PLAIN("[%s] : accept() failed : %s\n", at_.address.sun_path, strerror(error));
    }
    if (full) {
        const timespec time{static_cast<time_t>(pause_.pause() / 1000),
                            static_cast<long>(pause_.pause() % 1000 * 1000000)};
        pselect(0, nullptr, nullptr, nullptr, &time, signals_.waitMask());
    }
}

bool Listener::ForkedChild() {
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        fd_.Reset();
        signals_.ReleaseInChild();
        TALVEK_DaemonHandler(&client_);
        return true;
    }
    if (child == -1) {
        LOG_ERRNO_PLAIN("Can't fork() child : %s\n");
    } else {
        LOG_PLAIN("PID[%d][%d] fork() to handle client()\n", client_.daemon_pid, child);
    }
    COM_CloseFd(&client_.fd);
    return false;
}

// Another daemon may have taken the path over in the meantime.
void Listener::End(int signal) const {
    if (FileId{at_.address.sun_path} == bound_) {
        unlink(at_.address.sun_path);
    }
    ListenerSignals::EndBy(signal);
}

}  // namespace
}  // namespace talvek

int TALVEK_Daemon(const char *pSocketPath) {
    talvek::InitSessions();
    tTalvekClient client = {};
    client.daemon_pid = getpid();
    client.fd = -1;

    const talvek::SocketAddress address{pSocketPath};
    talvek::ListenerSignals signals;
    talvek::UniqueFd fd = talvek::Listen(address);
    if (!fd) {
        return -1;
    }
    srandom(static_cast<unsigned>(time(nullptr)));
    talvek::Listener{address, client, signals, std::move(fd)}.Run();
    return -1;
}
