// The daemon's side of one connection: session, environment and commands of a client.

#include "service/handler.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/cancel_guard.h"
#include "base/wait.h"
#include "common/COMMON.h"
#include "service/internal/module_log.h"
#include "service/internal/package_buffer.h"
#include "service/internal/wait_round.h"
#include "service/internal/write_signals.h"
#include "service/session.h"

namespace {

using talvek::PackageBuffer;
using talvek::WriteSignals;

constexpr const char *kFunction = "TALVEK_DaemonHandler";

void PutLine(const char *pText) {
    puts(pText);
    fflush(stdout);
}

// One connection, and the package that is received and answered on it.
class Connection {
  public:
    Connection(tTalvekClient &client, PackageBuffer &package)
        : client_(client), package_(package) {}

    // Returns the result of the handler.
    int Serve();

  private:
    enum class Next { kRead, kClose, kLeave };

    int WaitForFirstByte();
    Next ServePackage();
    Next Dispatch(int type);
    Next Register();
    Next RunCommand();
    Next Reply(uint16_t sn);
    void ReportWait(const char *pOutcome, int line) const;

    tTalvekClient &client_;
    PackageBuffer &package_;
    size_t held_ = 0;  // bytes of the package that have been received
    int result_ = 0;   // of the last wait or reply
};

int Connection::Serve() {
    result_ = WaitForFirstByte();
    Next next = result_ > 0 ? Next::kRead : Next::kClose;
    while (next == Next::kRead) {
        const ssize_t count = read(client_.fd, package_.bytes() + held_, TALVEK_PKG_MAX - held_);
        if (count <= 0) {
            break;  // the client has closed, perhaps inside a package
        }
        held_ += static_cast<size_t>(count);
        next = ServePackage();
    }
    if (next == Next::kLeave) {
        return -1;
    }
    COM_CloseFd(&client_.fd);
    return result_;
}

// Waits for a silent client without a limit.
int Connection::WaitForFirstByte() {
    for (;;) {
        const int ready = talvek::WaitReady(client_.fd, POLLIN, talvek::kWaitRoundMs);
        if (ready > 0) {
            return ready;
        }
        if (ready < 0) {
            ReportWait("error", __LINE__);
            return ready;
        }
        ReportWait("timeout", __LINE__);
    }
}

void Connection::ReportWait(const char *pOutcome, int line) const {
    COM_PrintTimeStamp(TALVEK_MODULE, line);
    printf("PID[%d][%d] select(%d) %s\n", client_.daemon_pid, getpid(), client_.fd, pOutcome);
    fflush(stdout);
}

// Serves the package in the buffer when it is complete. Bytes received after it are dropped with
// it.
Connection::Next Connection::ServePackage() {
    if (held_ < PackageBuffer::kHeaderSize) {
        return Next::kRead;
    }
    const int type = TALVEK_CheckPkgHeader(package_.header(), static_cast<uint32_t>(held_));
    const size_t size = package_.Size();
    if (type != 0 && size > TALVEK_PKG_MAX) {
        LOG_PLAIN("pkg sz = %d, more than %d!\n", static_cast<int>(size), TALVEK_PKG_MAX);
        return Next::kClose;
    }
    if (type != 0 && held_ < size) {
        return Next::kRead;
    }
    held_ = 0;
    return Dispatch(type);
}

Connection::Next Connection::Dispatch(int type) {
    switch (type) {
        case TALVEK_PKG_REGISTER:
            return Register();
        case TALVEK_PKG_COMMAND:
            return RunCommand();
        default:
            LOG_PLAIN("pkg type = %d, not implement yet!\n", type);
            return Next::kRead;
    }
}

// The reply is the client's package with the session number in it.
Connection::Next Connection::Register() {
    client_.session = TALVEK_RegSession();
    if (client_.session == TALVEK_NO_SESSION) {
        return Next::kLeave;
    }
    if (package_.Size() > PackageBuffer::kHeaderSize) {
        TALVEK_SetEnvFromPkg(package_.payload(),
                             uint32_t{package_.Size()} - PackageBuffer::kHeaderSize);
    }
    // A register reply carries the counter before the increment, a result the counter after it.
    // Tested by Handler.FirstResultCarriesSequenceTwo.
    return Reply(client_.sn++);
}

Connection::Next Connection::RunCommand() {
    package_.TerminatePayload();
    LOG_AS(kFunction, "Command => [%s]\n", package_.payload());
    package_.SetStatus(TALVEK_RunCommand(package_.payload()));
    const Next next = Reply(++client_.sn);
    // A second command without a registration before it has no session to release.
    if (TALVEK_UnRegSession(static_cast<uint32_t>(client_.session)) != 0) {
        PutLine("UnReg session failed");
    } else {
        client_.session = TALVEK_NO_SESSION;
    }
    return next;
}

// A client that has closed may have sent more packages before; they are served. After any other
// failure the client would wait for the reply for ever, so the connection ends.
Connection::Next Connection::Reply(uint16_t sn) {
    package_.SetSession(static_cast<uint32_t>(client_.session));
    package_.Seal(sn);
    errno = 0;
    result_ = TALVEK_SendPkg(&client_, package_.header(), package_.Size());
    const bool goOn = result_ == 0 || errno == EPIPE || errno == ECONNRESET;
    return goOn ? Next::kRead : Next::kClose;
}

// The service ignores SIGPIPE and SIGXFSZ; commands expect their default actions.
int SystemWithDefaultSignals(const char *pCommand) {
    // What was printed before the command must precede its output. It is written while the signals
    // are still ignored.
    fflush(stdout);
    const WriteSignals defaults{SIG_DFL};
    errno = 0;
    const int status = system(pCommand);
    // For a shell that cannot be started, glibc's system returns the status 127, and musl's fails.
    // POSIX: it fails when no process can be made, and the status is 127 when the shell cannot be
    // executed.
    constexpr int kShellExits127 = 127 << 8;
    if (status == kShellExits127 && (errno == EAGAIN || errno == ENOMEM)) {
        return -1;
    }
    const bool notExecuted =
        status == -1 && (errno == ENOENT || errno == EACCES || errno == ENOEXEC || errno == E2BIG);
    return notExecuted ? kShellExits127 : status;
}

}  // namespace

int TALVEK_DaemonHandler(tTalvekClient *pClient) {
    const talvek::CancelGuard guard;
    if (pClient == nullptr || pClient->fd < 0) {
        return -1;
    }
    PackageBuffer package;
    if (!package) {
        return -1;
    }
    return Connection{*pClient, package}.Serve();
}

int TALVEK_RunCommand(const char *pCommand) {
    const talvek::CancelGuard guard;
    if (pCommand == nullptr) {
        return -1;
    }
    // The daemon ignores SIGCHLD; system cannot collect the status then.
    struct sigaction childDefault = {};
    childDefault.sa_handler = SIG_DFL;
    childDefault.sa_flags = SA_RESTART;
    sigaddset(&childDefault.sa_mask, SIGCHLD);
    const int installed = sigaction(SIGCHLD, &childDefault, nullptr);
    if (installed != 0) {
        perror("sigaction");
        return installed;
    }

    const int status = SystemWithDefaultSignals(pCommand);
    if (status == -1) {
        PutLine("some error is occured in that shell command");
    }
    if (status == -1 || !WIFEXITED(status)) {
        PutLine("child process should not terminated normally WIFEXITED(ret) = 0");
        return -1;
    }
    return WEXITSTATUS(status);
}
