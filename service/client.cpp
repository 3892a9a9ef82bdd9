// The client's side of one exchange: register with the environment, send a command, return its
// status.

#include "service/client.h"

#include <poll.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/cancel_guard.h"
#include "base/mutex_lock.h"
#include "base/unique_fd.h"
#include "base/wait.h"
#include "service/internal/module_log.h"
#include "service/internal/package_buffer.h"
#include "service/internal/send_bytes.h"
#include "service/internal/socket_address.h"
#include "service/internal/wait_round.h"
#include "service/package.h"

namespace {

using talvek::PackageBuffer;
using talvek::SocketAddress;
using talvek::UniqueFd;

constexpr int kFailed = -1;
constexpr const char *kFunction = "TALVEK_Client";

static_assert(PackageBuffer::kHeaderSize + TALVEK_COMMAND_MAX + 1 == TALVEK_PKG_MAX);

constinit talvek::Mutex g_clientMutex;

// One connection, and the package that is sent and received on it.
class Exchange {
  public:
    Exchange(int fd, PackageBuffer &package) : fd_(fd), package_(package) {}

    // Returns the result of the whole exchange. The command fits the package.
    int Run(const char *pCommand);

  private:
    void BuildRegister();
    void AppendEnvironment();
    void BuildCommand(const char *pCommand);
    [[nodiscard]] int Send() const;
    [[nodiscard]] int Receive() const;

    int fd_;
    PackageBuffer &package_;
    uint16_t sn_ = 0;  // counts what this end sends
};

int Exchange::Run(const char *pCommand) {
    BuildRegister();
    for (bool registered = false;; registered = true) {
        if (const int failure = Send(); failure != 0) {
            return failure;
        }
        const int type = Receive();
        if (type == TALVEK_PKG_RESULT) {
            int32_t status;
            return package_.GetStatus(status) ? status : TALVEK_NO_RESULT;
        }
        // A connection carries one command: a second register reply does not send it again.
        if (type != TALVEK_PKG_REGISTER || registered) {
            return TALVEK_NO_RESULT;
        }
        BuildCommand(pCommand);
    }
}

void Exchange::BuildRegister() {
    package_.InitHeader();
    package_.SetType(TALVEK_PKG_REGISTER);
    AppendEnvironment();
    package_.Seal(sn_);
}

void Exchange::AppendEnvironment() {
    for (char **ppString = environ; ppString != nullptr && *ppString != nullptr; ++ppString) {
        const size_t at = package_.Size();
        const size_t length = strlen(*ppString) + 1;
        if (!package_.Put(at, *ppString, length)) {
            LOG_AS(kFunction, "Warning!!using size(%d) > CALLOC buf_sz(%d), break loop\n",
                   static_cast<int>(at + length), TALVEK_PKG_MAX);
            return;
        }
        package_.SetSize(static_cast<uint16_t>(at + length));
    }
}

// The command's header is that of the register reply with another type, size and sequence number.
void Exchange::BuildCommand(const char *pCommand) {
    const size_t length = strlen(pCommand) + 1;
    package_.SetType(TALVEK_PKG_COMMAND);
    package_.SetSize(static_cast<uint16_t>(PackageBuffer::kHeaderSize + length));
    package_.Put(PackageBuffer::kHeaderSize, pCommand, length);
    package_.Seal(++sn_);
}

// Returns 0 when the whole package has been written, else the result of the exchange. After a write
// that returns 0 inside the package, the whole package is sent again.
int Exchange::Send() const {
    for (;;) {
        int ready;
        do {
            ready = talvek::WaitReady(fd_, POLLOUT, talvek::kWaitRoundMs);
        } while (ready == 0);
        if (ready < 0) {
            return kFailed;
        }
        const talvek::Sent sent = talvek::SendBytes(fd_, package_.bytes(), package_.Size());
        if (sent.last == -1 || sent.count == 0) {
            return TALVEK_NO_RESULT;
        }
        if (sent.count == package_.Size()) {
            return 0;
        }
    }
}

// Receives a package into the buffer of the one that was sent. Returns its type, or 0: the
// connection ended inside the package, the first read brought less than a header, the header is
// bad, or its `sz` is larger than a package can be.
int Exchange::Receive() const {
    size_t held = 0;
    for (;;) {
        const ssize_t count = read(fd_, package_.bytes() + held, TALVEK_PKG_MAX - held);
        if (count <= 0) {
            return 0;
        }
        held += static_cast<size_t>(count);
        const int type = TALVEK_CheckPkgHeader(package_.header(), static_cast<uint32_t>(held));
        if (type == 0 || package_.Size() > TALVEK_PKG_MAX) {
            return 0;
        }
        if (held >= package_.Size()) {
            return type;
        }
    }
}

UniqueFd Connect(const SocketAddress &to) {
    UniqueFd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (!fd) {
        LOG_ERRNO_PLAIN("socket(AF_UNIX) failed : %s\n");
        return fd;
    }
    if (connect(fd.get(), to.get(), to.length) == -1) {
        LOG_ERRNO_PLAIN("connect(%s, %d) failed : %s\n", to.address.sun_path,
                        static_cast<int>(to.length));
        fd.Reset();
    }
    return fd;
}

}  // namespace

int TALVEK_Client(const char *pSocketPath, const char *pCommand) {
    const talvek::CancelGuard guard;
    if (pCommand == nullptr || strlen(pCommand) > TALVEK_COMMAND_MAX) {
        LOG("a command of at most %d characters is needed\n", TALVEK_COMMAND_MAX);
        return kFailed;
    }
    const SocketAddress daemon{pSocketPath};
    const talvek::MutexLock lock{g_clientMutex};
    const UniqueFd fd = Connect(daemon);
    if (!fd) {
        return kFailed;
    }
    PackageBuffer package;
    if (!package) {
        return kFailed;
    }
    return Exchange{fd.get(), package}.Run(pCommand);
}
