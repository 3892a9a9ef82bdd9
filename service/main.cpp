// The program: a daemon or a client, as its options say.

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "service/TALVEK.h"
#include "service/internal/module_log.h"
#include "service/internal/write_signals.h"

namespace {

using talvek::WriteSignals;

enum class Mode { kNone = 0, kClient = 1, kDaemon = 2 };

constexpr size_t kCommandSize = 80;
constexpr size_t kPathSize = 128;

// The options. The path field follows the command field directly. The NUL of a text that fills its
// field lies on the byte after the field, so a command of 80 characters empties the path, unless -s
// comes after it. Tested by CommandLine.CommandOf80CharactersEmptiesThePath.
class Options {
  public:
    Options(int argc, char **argv);

    [[nodiscard]] Mode mode() const { return mode_; }
    [[nodiscard]] const char *path() const { return fields_ + kCommandSize; }
    // The command without the path, also when it fills its field.
    [[nodiscard]] const char *command() const { return command_; }

  private:
    void SetCommand(const char *pText) { SetField(fields_, kCommandSize, pText); }
    void SetPath(const char *pText) { SetField(fields_ + kCommandSize, kPathSize, pText); }
    static void SetField(char *pField, size_t size, const char *pText);

    Mode mode_ = Mode::kNone;
    char fields_[kCommandSize + kPathSize + 1] = {};
    char command_[kCommandSize + 1] = {};
};

Options::Options(int argc, char **argv) {
    SetPath(TALVEK_SOCKET_PATH);
    // musl's getopt stops at the first word that is not an option. getopt_long continues after it
    // in every C library, as glibc's getopt does.
    for (int option; (option = getopt_long(argc, argv, "DCf:s:", nullptr, nullptr)) != -1;) {
        switch (option) {
            case 'D':
                mode_ = Mode::kDaemon;
                break;
            case 'C':
                mode_ = Mode::kClient;
                break;
            case 'f':
                SetCommand(optarg);
                break;
            case 's':
                SetPath(optarg);
                break;
            default:
                break;  // getopt has reported it
        }
    }
    memcpy(command_, fields_, strnlen(fields_, kCommandSize));
}

// Stores at most `size` characters, and a NUL on the byte after the last one.
void Options::SetField(char *pField, size_t size, const char *pText) {
    const size_t length = strlen(pText);
    if (length > size) {
        LOG_PLAIN("Warning! overflow (len, size) = (%d, %d)\n", static_cast<int>(length),
                  static_cast<int>(size));
    }
    snprintf(pField, size + 1, "%.*s", static_cast<int>(size), pText);
}

// When the caller has closed a standard stream, a socket must not get its number: log lines and the
// output of commands would be sent to the peer. Without /dev (early boot), the root directory is
// opened: reads and writes on it fail. Returns false when that fails too.
bool OpenMissingStandardStreams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        // What is opened gets the lowest free number, this one.
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF && open("/dev/null", O_RDWR) == -1 &&
            open("/", O_RDONLY) == -1) {
            return false;
        }
    }
    return true;
}

// Lines about the options come before the mode is known, and a daemon must start although nobody
// reads them. From then on a client has the caller's actions.
Options ReadOptions(int argc, char **argv) {
    const WriteSignals ignored{SIG_IGN};
    return Options{argc, argv};
}

int RunDaemon(const char *pSocketPath) {
    const WriteSignals ignored{SIG_IGN};
    signal(SIGCHLD, SIG_IGN);
    LOG_PLAIN("Daemon Mode - [%s]\n", pSocketPath);
    const pid_t child = fork();
    if (child == -1) {
        LOG_ERRNO_PLAIN("fork() failed : %s\n");
        return 0;
    }
    if (child > 0) {
        LOG_PLAIN("Master[%d] is leaving - you're on your own [%d]\n", getpid(), child);
        return 0;
    }
    return TALVEK_Daemon(pSocketPath);
}

}  // namespace

int main(int argc, char **argv) {
    if (!OpenMissingStandardStreams()) {
        return 1;
    }
    const Options options = ReadOptions(argc, argv);
    switch (options.mode()) {
        case Mode::kClient:
            LOG_PLAIN("Client Mode - [%s][%s]\n", options.path(), options.command());
            return TALVEK_Client(options.path(), options.command());
        case Mode::kDaemon:
            return RunDaemon(options.path());
        case Mode::kNone:
            break;
    }
    LOG_PLAIN("Unknown mode[%d]\n", static_cast<int>(options.mode()));
    return 0;
}
