// The daemon's side of one connection: sessions, the client's environment, its commands.

#include "service/handler.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/byte_writer.h"
#include "base/heap_buf.h"
#include "base/scope_exit.h"
#include "common/COMMON.h"
#include "service/internal/module_log.h"
#include "service/internal/wait.h"
#include "service/session.h"

namespace talvek {
namespace {

constexpr size_t kHeader = sizeof(tTalvekPkg);
constexpr size_t kResultSize = kHeader + sizeof(int32_t);

void PutLine(const char *pText) {
    puts(pText);
    fflush(stdout);
}

// A connection while it is served. The buffer holds the package that is being received, and the
// reply to it afterwards.
class Connection {
  public:
    // One byte more than a package, so that a text which fills it can be closed by a NUL.
    static constexpr size_t kBufferSize = TALVEK_PKG_MAX + 1;

    Connection(tTalvekClient &client, uint8_t *pBytes) : client_(client), bytes_(pBytes) {}

    int Serve();

  private:
    enum class Next { kRead, kClose, kLeave };

    [[nodiscard]] tTalvekPkg &pkg() const { return *reinterpret_cast<tTalvekPkg *>(bytes_); }
    int WaitForFirstByte();
    Next TakePackage();
    Next Dispatch(int type);
    Next Register();
    void RunCommand();
    void Reply(uint16_t sn, uint16_t size);
    void ReportWait(const char *pOutcome, int line) const;

    tTalvekClient &client_;
    uint8_t *bytes_;
    size_t held_ = 0;
    int result_ = 0;  // of the last wait or reply
};

int Connection::Serve() {
    result_ = WaitForFirstByte();
    Next next = result_ > 0 ? Next::kRead : Next::kClose;
    while (next == Next::kRead) {
        const ssize_t count = read(client_.fd, bytes_ + held_, TALVEK_PKG_MAX - held_);
        if (count <= 0) {
            break;  // the client has gone, perhaps in the middle of a package
        }
        held_ += static_cast<size_t>(count);
        next = TakePackage();
    }
    if (next == Next::kLeave) {
        return -1;
    }
    COM_CloseFd(&client_.fd);
    return result_;
}

// A silent client is waited for without end.
int Connection::WaitForFirstByte() {
    for (;;) {
        const int ready = WaitReadable(client_.fd);
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
    COM_PrintTimeStamp("TALVEK", line);
    printf("PID[%d][%d] select(%d) %s\n", client_.daemon_pid, getpid(), client_.fd, pOutcome);
    fflush(stdout);
}

// Serves the package in the buffer once it is complete. What was received behind it goes with it.
Connection::Next Connection::TakePackage() {
    if (held_ < kHeader) {
        return Next::kRead;
    }
    const int type = TALVEK_CheckPkgHeader(&pkg(), static_cast<uint32_t>(held_));
    if (type != 0 && pkg().sz > TALVEK_PKG_MAX) {
        LOG_PLAIN("pkg sz = %d, more than %d!\n", int{pkg().sz}, TALVEK_PKG_MAX);
        return Next::kClose;
    }
    if (type != 0 && held_ < pkg().sz) {
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
            RunCommand();
            return Next::kRead;
        default:
            LOG_PLAIN("pkg type = %d, not implement yet!\n", type);
            return Next::kRead;
    }
}

// The reply is the package itself with the session number filled in.
Connection::Next Connection::Register() {
    client_.session = TALVEK_RegSession();
    if (client_.session == -1) {
        return Next::kLeave;
    }
    if (pkg().sz > kHeader) {
        TALVEK_SetEnvFromPkg(reinterpret_cast<const char *>(bytes_ + kHeader),
                             static_cast<uint32_t>(pkg().sz - kHeader));
    }
    // A register reply carries the counter before it is raised, a result the counter after.
    // Held by Handler.FirstResultCarriesSequenceTwo.
    Reply(client_.sn++, pkg().sz);
    return Next::kRead;
}

void Connection::RunCommand() {
    const size_t end = pkg().sz > kHeader ? pkg().sz : kHeader;
    bytes_[end] = '\0';
    const char *pCommand = reinterpret_cast<const char *>(bytes_ + kHeader);
    LOG_AS("TALVEK_DaemonHandler", "Command => [%s]\n", pCommand);
    const int status = TALVEK_RunCommand(pCommand);

    pkg().type = TALVEK_PKG_RESULT;
    pkg().sz = kResultSize;
    LittleEndianWriter{bytes_, kResultSize}.U32(kHeader, static_cast<uint32_t>(status));
    Reply(++client_.sn, kResultSize);

    // After a second command without a register in between there is no session to release.
    if (TALVEK_UnRegSession(static_cast<uint32_t>(client_.session)) != 0) {
        PutLine("UnReg session failed");
    } else {
        client_.session = -1;
    }
}

void Connection::Reply(uint16_t sn, uint16_t size) {
    pkg().session = static_cast<uint32_t>(client_.session);
    pkg().sn = sn;
    pkg().chksum = TALVEK_CalcPkgChecksum(&pkg());
    result_ = TALVEK_SendPkg(&client_, &pkg(), size);
}

// system with SIGPIPE as a command expects it. The handler itself goes on ignoring it.
int SystemWithDefaultPipe(const char *pCommand) {
    struct sigaction pipeDefault = {};
    pipeDefault.sa_handler = SIG_DFL;
    struct sigaction pipeBefore;
    const bool changed = sigaction(SIGPIPE, &pipeDefault, &pipeBefore) == 0;
    const ScopeExit restore{[&] {
        if (changed) {
            sigaction(SIGPIPE, &pipeBefore, nullptr);
        }
    }};
    fflush(stdout);
    return system(pCommand);
}

}  // namespace
}  // namespace talvek

int TALVEK_DaemonHandler(tTalvekClient *pClient) {
    if (pClient == nullptr || pClient->fd < 0) {
        return -1;
    }
    const auto buffer = talvek::HeapBuf<uint8_t>::Zeroed(talvek::Connection::kBufferSize);
    if (!buffer) {
        return -1;
    }
    return talvek::Connection{*pClient, buffer.get()}.Serve();
}

int TALVEK_RunCommand(const char *pCommand) {
    if (pCommand == nullptr) {
        return -1;
    }
    // The daemon ignores SIGCHLD, and system could not collect the status then.
    struct sigaction childDefault = {};
    childDefault.sa_handler = SIG_DFL;
    childDefault.sa_flags = SA_RESTART;
    sigaddset(&childDefault.sa_mask, SIGCHLD);
    struct sigaction childBefore;
    const int installed = sigaction(SIGCHLD, &childDefault, &childBefore);
    if (installed != 0) {
        perror("sigaction");
        return installed;
    }

    const int status = talvek::SystemWithDefaultPipe(pCommand);
    if (status == -1) {
        talvek::PutLine("some error is occured in that shell command");
    }
    if (status == -1 || !WIFEXITED(status)) {
        talvek::PutLine("child process should not terminated normally WIFEXITED(ret) = 0");
        return -1;
    }
    return WEXITSTATUS(status);
}
