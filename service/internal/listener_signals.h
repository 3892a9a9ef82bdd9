#ifndef TALVEK_SERVICE_INTERNAL_LISTENER_SIGNALS_H
#define TALVEK_SERVICE_INTERNAL_LISTENER_SIGNALS_H

#include <signal.h>

#include "service/internal/write_signals.h"

namespace talvek {

// The signals of the listening process while this object lives.
//
// The handler of SIGTERM and SIGINT ends the process itself: it removes the socket if that is still
// the daemon's own, and the process dies of the signal. A flag would not be enough: a log line
// blocks while nobody reads the log, and a signal that arrives just before that write does not
// interrupt it. The two signals are blocked only from the bind to SetSocket and from accept to
// fork, where nothing waits.
//
// SIGPIPE and SIGXFSZ are ignored: the service outlives the reader of its log, and goes on when the
// log's file may not grow.
class ListenerSignals {
  public:
    ListenerSignals();
    ~ListenerSignals();  // restores the caller's actions and mask
    ListenerSignals(const ListenerSignals &) = delete;
    ListenerSignals &operator=(const ListenerSignals &) = delete;

    void Block() const;
    void Unblock() const;

    // Sets the file to remove: the one that the path names now. Only while the signals are blocked.
    static void SetSocket(const char *pPath);

    // For a child, while the signals are blocked: SIGTERM and SIGINT get their default actions,
    // also where the daemon's starter had them ignored, and no signal is blocked any more. The
    // child's commands inherit the mask. SIGPIPE and SIGXFSZ stay ignored.
    void ReleaseInChild();

  private:
    sigset_t stopSignals_;
    sigset_t oldMask_;
    struct sigaction oldTerm_;
    struct sigaction oldInt_;
    WriteSignals ignored_{SIG_IGN};
    bool released_ = false;
};

}  // namespace talvek

#endif
