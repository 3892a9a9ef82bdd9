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

struct sigaction ActionOf(void (*pHandler)(int), const sigset_t &mask) {
    struct sigaction action = {};
    action.sa_handler = pHandler;
    action.sa_mask = mask;
    return action;
}

struct sigaction ActionOf(void (*pHandler)(int)) {
    sigset_t none;
    sigemptyset(&none);
    return ActionOf(pHandler, none);
}

// Handles a stop signal. Calls only what a handler may call (signal-safety(7)).
void EndProcess(int signal) {
    // Another daemon may have taken the path over.
    if (FileId{g_socket.path} == g_socket.id) {
        unlink(g_socket.path);
    }
    const struct sigaction end = ActionOf(SIG_DFL);
    sigaction(signal, &end, nullptr);
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
    const struct sigaction stop = ActionOf(EndProcess, stopSignals_);
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
    const struct sigaction end = ActionOf(SIG_DFL);
    sigaction(SIGTERM, &end, nullptr);
    sigaction(SIGINT, &end, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace talvek
