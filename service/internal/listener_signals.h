#ifndef TALVEK_SERVICE_INTERNAL_LISTENER_SIGNALS_H
#define TALVEK_SERVICE_INTERNAL_LISTENER_SIGNALS_H

#include <signal.h>

namespace talvek {

// The signals of the listening process while this object lives.
//
// SIGTERM and SIGINT end the process from inside their handler: it removes the socket if it is
// still the daemon's own, and dies of the signal. A handler that only sets a flag would not do: the
// write of a log line blocks for as long as the log's reader does not read, and a signal that
// arrives just before the write would not interrupt it. The two signals are blocked only from the
// bind to SetSocket and from accept to fork, where nothing waits.
//
// SIGPIPE is ignored: the service outlives the reader of its log.
class ListenerSignals {
  public:
    ListenerSignals();
    ~ListenerSignals();  // restores the caller's actions and mask
    ListenerSignals(const ListenerSignals &) = delete;
    ListenerSignals &operator=(const ListenerSignals &) = delete;

    void Block() const;
    void Unblock() const;

    // Sets the socket to remove, which the path names now. Only while the signals are blocked.
    static void SetSocket(const char *pPath);

    // For a child, while the signals are blocked: SIGTERM and SIGINT get their default actions,
    // also where the daemon's starter had them ignored, and no signal is blocked any more. The
    // child's commands inherit the mask. SIGPIPE stays ignored.
    void ReleaseInChild();

  private:
    sigset_t stopSignals_;
    sigset_t oldMask_;
    struct sigaction oldTerm_;
    struct sigaction oldInt_;
    struct sigaction oldPipe_;
    bool released_ = false;
};

}  // namespace talvek

#endif
