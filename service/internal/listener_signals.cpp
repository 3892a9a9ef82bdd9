#include "service/internal/listener_signals.h"

#include <stdlib.h>
#include <unistd.h>

namespace talvek {
namespace {

volatile sig_atomic_t g_stop = 0;

void NoteStop(int signal) {
    g_stop = signal;
}

struct sigaction ActionOf(void (*pHandler)(int)) {
    struct sigaction action = {};
    action.sa_handler = pHandler;
    sigemptyset(&action.sa_mask);
    return action;
}

}  // namespace

ListenerSignals::ListenerSignals() {
    g_stop = 0;
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigprocmask(SIG_BLOCK, &stopSignals, &oldMask_);
    waitMask_ = oldMask_;
    sigdelset(&waitMask_, SIGTERM);
    sigdelset(&waitMask_, SIGINT);

    const struct sigaction note = ActionOf(NoteStop);
    sigaction(SIGTERM, &note, &oldTerm_);
    sigaction(SIGINT, &note, &oldInt_);
    const struct sigaction ignore = ActionOf(SIG_IGN);
    sigaction(SIGPIPE, &ignore, &oldPipe_);
}

ListenerSignals::~ListenerSignals() {
    if (released_) {
        return;
    }
    sigaction(SIGTERM, &oldTerm_, nullptr);
    sigaction(SIGINT, &oldInt_, nullptr);
    sigaction(SIGPIPE, &oldPipe_, nullptr);
    sigprocmask(SIG_SETMASK, &oldMask_, nullptr);
}

// A wait that finds its descriptor ready returns without letting a signal in, so under steady load
// the handler would never run: what is pending counts too.
int ListenerSignals::Stop() {
    sigset_t pending;
    if (g_stop != 0 || sigpending(&pending) != 0) {
        return g_stop;
    }
    if (sigismember(&pending, SIGTERM) == 1) {
        return SIGTERM;
    }
    return sigismember(&pending, SIGINT) == 1 ? SIGINT : 0;
}

// Blocked signals are inherited by what a child executes: those that the starter of the daemon had
// blocked would leave commands that cannot be ended.
void ListenerSignals::ReleaseInChild() {
    released_ = true;
    const struct sigaction end = ActionOf(SIG_DFL);
    sigaction(SIGTERM, &end, nullptr);
    sigaction(SIGINT, &end, nullptr);
    sigprocmask(SIG_SETMASK, &waitMask_, nullptr);
}

void ListenerSignals::EndBy(int signal) {
    const struct sigaction end = ActionOf(SIG_DFL);
    sigaction(signal, &end, nullptr);
    raise(signal);
    sigset_t all;
    sigemptyset(&all);
    sigaddset(&all, signal);
    sigprocmask(SIG_UNBLOCK, &all, nullptr);
    _exit(128 + signal);  // not reached: the signal has been delivered
}

}  // namespace talvek
