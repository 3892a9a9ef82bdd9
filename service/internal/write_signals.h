#ifndef TALVEK_SERVICE_INTERNAL_WRITE_SIGNALS_H
#define TALVEK_SERVICE_INTERNAL_WRITE_SIGNALS_H

#include <signal.h>

namespace talvek {

// For a scope, the action of the signals that a write raises by default when it fails: SIGPIPE
// (nobody reads the pipe) and SIGXFSZ (the file would exceed RLIMIT_FSIZE). The service ignores
// them, since it outlives its log; commands start with their default actions.
class WriteSignals {
  public:
    explicit WriteSignals(void (*pHandler)(int)) {
        struct sigaction action = {};
        action.sa_handler = pHandler;
        for (Signal &signal : signals_) {
            signal.changed = sigaction(signal.number, &action, &signal.before) == 0;
        }
    }
    ~WriteSignals() {
        for (const Signal &signal : signals_) {
            if (signal.changed) {
                sigaction(signal.number, &signal.before, nullptr);
            }
        }
    }
    WriteSignals(const WriteSignals &) = delete;
    WriteSignals &operator=(const WriteSignals &) = delete;

    // The actions outlast the scope.
    void Keep() {
        for (Signal &signal : signals_) {
            signal.changed = false;
        }
    }

  private:
    struct Signal {
        int number;
        bool changed = false;
        struct sigaction before = {};
    };
    Signal signals_[2] = {{SIGPIPE}, {SIGXFSZ}};
};

}  // namespace talvek

#endif
