// The client's side of one exchange: register with the environment, send a command, take its
// status.

#include "service/client.h"

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/cancel_guard.h"
#include "base/byte_reader.h"
#include "base/heap_buf.h"
#include "base/mutex_lock.h"
#include "base/unique_fd.h"
#include "service/internal/module_log.h"
#include "service/internal/send_bytes.h"
#include "service/internal/socket_address.h"
#include "service/internal/wait.h"
#include "service/package.h"

namespace talvek {
namespace {

constexpr int kFailed = -1;
constexpr int kNoResult = 1;  // the exchange ended without a command's status
constexpr size_t kHeader = sizeof(tTalvekPkg);
constexpr size_t kResultSize = kHeader + sizeof(int32_t);

pthread_mutex_t g_clientMutex = PTHREAD_MUTEX_INITIALIZER;

// One connection and the package that travels to and fro on it.
class Exchange {
  public:
    Exchange(int fd, uint8_t *pBytes) : fd_(fd), bytes_(pBytes) {}

    // Carries out the whole exchange. The command fits the package.
    int Run(const char *pCommand);

  private:
    [[nodiscard]] tTalvekPkg &pkg() const { return *reinterpret_cast<tTalvekPkg *>(bytes_); }

    void BuildRegister();
    void AppendEnvironment();
    void TurnIntoCommand(const char *pCommand);
    [[nodiscard]] int Send() const;
    [[nodiscard]] int Receive() const;
    [[nodiscard]] int Status() const;

    int fd_;
    uint8_t *bytes_;   // TALVEK_PKG_MAX
    uint16_t sn_ = 0;  // of what this end sends
};

int Exchange::Run(const char *pCommand) {
    BuildRegister();
    for (bool registered = false;; registered = true) {
        if (const int failure = Send(); failure != 0) {
            return failure;
        }
        const int type = Receive();
        if (type == TALVEK_PKG_RESULT) {
            return Status();
        }
        // A connection carries one command: a second register reply does not send it again.
        if (type != TALVEK_PKG_REGISTER || registered) {
            return kNoResult;
        }
        TurnIntoCommand(pCommand);
    }
}

void Exchange::BuildRegister() {
    pkg() = {};
    pkg().ver_fragement = TALVEK_PKG_VERSION;
    pkg().pkg_cnt_idx = 0x11;  // the first package of one
    pkg().sn = sn_;
    pkg().type = TALVEK_PKG_REGISTER;
    pkg().sz = kHeader;
    AppendEnvironment();
    pkg().chksum = TALVEK_CalcPkgChecksum(&pkg());
}

void Exchange::AppendEnvironment() {
    for (char **ppString = environ; ppString != nullptr && *ppString != nullptr; ++ppString) {
        const size_t at = pkg().sz;
        const size_t length = strlen(*ppString) + 1;
        if (at + length > TALVEK_PKG_MAX) {
            LOG_AS("TALVEK_Client", "Warning!!using size(%d) > CALLOC buf_sz(%d), break loop\n",
                   static_cast<int>(at + length), TALVEK_PKG_MAX);
            return;
        }
        memcpy(bytes_ + at, *ppString, length);
        pkg().sz = static_cast<uint16_t>(at + length);
    }
}

// The reply's version, count, index and session number stay in the header.
void Exchange::TurnIntoCommand(const char *pCommand) {
    const size_t length = strlen(pCommand) + 1;
    pkg().sn = ++sn_;
    pkg().type = TALVEK_PKG_COMMAND;
    pkg().sz = static_cast<uint16_t>(kHeader + length);
    pkg().chksum = TALVEK_CalcPkgChecksum(&pkg());
    memcpy(bytes_ + kHeader, pCommand, length);
}

// 0 when the whole package is written, else what the exchange ends with.
int Exchange::Send() const {
    for (;;) {
        int ready;
        do {
            ready = WaitWritable(fd_);
        } while (ready == 0);
        if (ready < 0) {
            return kFailed;
        }
        const Sent sent = SendBytes(fd_, bytes_, pkg().sz);
        if (sent.last == -1 || sent.count == 0) {
            return kNoResult;
        }
        if (sent.count == pkg().sz) {
            return 0;
        }
    }
}

// Receives a package over the one that was sent. Its type; 0 when the connection ends inside it, a
// read brings less than a header, the header is bad, or more is announced than a package can hold.
int Exchange::Receive() const {
    size_t held = 0;
    for (;;) {
        const ssize_t count = read(fd_, bytes_ + held, TALVEK_PKG_MAX - held);
        if (count <= 0) {
            return 0;
        }
        held += static_cast<size_t>(count);
        const int type = TALVEK_CheckPkgHeader(&pkg(), static_cast<uint32_t>(held));
        if (type == 0 || pkg().sz > TALVEK_PKG_MAX) {
            return 0;
        }
        if (held >= pkg().sz) {
            return type;
        }
    }
}

int Exchange::Status() const {
    LittleEndianReader reply{bytes_, pkg().sz};
    const auto status = static_cast<int32_t>(reply.U32(kHeader));
    return reply.failed() ? kNoResult : status;
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
}  // namespace talvek

int TALVEK_Client(const char *pSocketPath, const char *pCommand) {
    const talvek::CancelGuard guard;
    constexpr size_t kLongest = TALVEK_PKG_MAX - talvek::kHeader - 1;
    if (pCommand == nullptr || strlen(pCommand) > kLongest) {
        LOG_AS(__func__, "a command of at most %d characters is needed\n",
               static_cast<int>(kLongest));
        return talvek::kFailed;
    }
    const talvek::SocketAddress daemon{pSocketPath};
    const talvek::MutexLock lock{talvek::g_clientMutex};
    const talvek::UniqueFd fd = talvek::Connect(daemon);
    if (!fd) {
        return talvek::kFailed;
    }
    const auto buffer = talvek::HeapBuf<uint8_t>::Zeroed(TALVEK_PKG_MAX);
    if (!buffer) {
        return talvek::kFailed;
    }
    return talvek::Exchange{fd.get(), buffer.get()}.Run(pCommand);
}
