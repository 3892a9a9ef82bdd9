#ifndef TALVEK_SERVICE_INTERNAL_LISTENER_SIGNALS_H
#define TALVEK_SERVICE_INTERNAL_LISTENER_SIGNALS_H

#include <signal.h>

namespace talvek {

// The signals of the listening process while it lives: SIGTERM and SIGINT ask it to stop and are
// delivered only while it waits, so that no child is forked with one half handled; SIGPIPE is
// ignored, so that a log reader that goes away does not end the service.
class ListenerSignals {
  public:
    ListenerSignals();
    ~ListenerSignals();  // what held before holds again
    ListenerSignals(const ListenerSignals &) = delete;
    ListenerSignals &operator=(const ListenerSignals &) = delete;

    // Mask for waiting: the caller's own with the two signals let through.
    [[nodiscard]] const sigset_t *waitMask() const { return &waitMask_; }

    // The signal that asks to stop, 0 for none.
    [[nodiscard]] static int Stop();

    // For a child: SIGTERM and SIGINT end it, also where the caller had them ignored or blocked.
    // SIGPIPE stays ignored.
    void ReleaseInChild();

    // Ends the process by the signal that asked for it.
    [[noreturn]] static void EndBy(int signal);

  private:
    sigset_t oldMask_;
    sigset_t waitMask_;
    struct sigaction oldTerm_;
    struct sigaction oldInt_;
    struct sigaction oldPipe_;
    bool released_ = false;
};

}  // namespace talvek

#endif
