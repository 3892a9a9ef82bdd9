#include "service/internal/listener_signals.h"

#include <stdio.h>
#include <sys/un.h>
#include <unistd.h>

#include "service/internal/file_id.h"

namespace talvek {
namespace {

// What the handler removes. Written only while the signals are blocked.
struct Socket {
    char path[sizeof sockaddr_un::sun_path];
    FileId id;
};
constinit Socket g_socket = {};

// Handles a stop signal, whose action is the default by then (SA_RESETHAND). Calls only what a
// handler may call (signal-safety(7)).
void EndProcess(int signal) {
    // Another daemon may have taken the path over.
    if (FileId{g_socket.path} == g_socket.id) {
        unlink(g_socket.path);
    }
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, signal);
    sigprocmask(SIG_UNBLOCK, &own, nullptr);
    raise(signal);
    _exit(128 + signal);  // not reached: the signal has ended the process GCOVR_EXCL_LINE
}

}  // namespace

ListenerSignals::ListenerSignals() {
    sigemptyset(&stopSignals_);
    sigaddset(&stopSignals_, SIGTERM);
    sigaddset(&stopSignals_, SIGINT);
    sigprocmask(SIG_BLOCK, &stopSignals_, &oldMask_);
    g_socket = {};
    struct sigaction stop = {};
    stop.sa_handler = EndProcess;
    stop.sa_mask = stopSignals_;
    stop.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGTERM, &stop, &oldTerm_);
    sigaction(SIGINT, &stop, &oldInt_);
    Unblock();
}

ListenerSignals::~ListenerSignals() {
    if (released_) {
        return;
    }
    sigaction(SIGTERM, &oldTerm_, nullptr);
    sigaction(SIGINT, &oldInt_, nullptr);
    sigprocmask(SIG_SETMASK, &oldMask_, nullptr);
}

void ListenerSignals::Block() const {
    sigprocmask(SIG_BLOCK, &stopSignals_, nullptr);
}

void ListenerSignals::Unblock() const {
    sigprocmask(SIG_UNBLOCK, &stopSignals_, nullptr);
}

void ListenerSignals::SetSocket(const char *pPath) {
    snprintf(g_socket.path, sizeof g_socket.path, "%s", pPath);
    g_socket.id = FileId{pPath};
}

void ListenerSignals::ReleaseInChild() {
    released_ = true;
    ignored_.Keep();
    struct sigaction end = {};
    end.sa_handler = SIG_DFL;
    sigaction(SIGTERM, &end, nullptr);
    sigaction(SIGINT, &end, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace talvek
