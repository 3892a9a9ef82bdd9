// The program: chooses between daemon and client from its options.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "service/TALVEK.h"
#include "service/internal/module_log.h"

namespace talvek {
namespace {

enum class Mode { kNone = 0, kClient = 1, kDaemon = 2 };

constexpr size_t kCommandSize = 80;
constexpr size_t kPathSize = 128;

// What the command line says. The path field stands directly behind the command field, and a text
// that fills a field has its NUL on the byte behind it. So a command of 80 characters leaves an
// empty path, unless -s follows it.
// Held by CommandLine.CommandOf80CharactersEmptiesThePath.
class Options {
  public:
    Options(int argc, char **argv);

    [[nodiscard]] Mode mode() const { return mode_; }
    [[nodiscard]] const char *path() const { return fields_ + kCommandSize; }
    // The command alone, also when it is as long as its field and a path follows.
    [[nodiscard]] const char *command() const { return command_; }

  private:
    void SetCommand(const char *pText) {
        snprintf(fields_, kCommandSize + 1, "%.*s", static_cast<int>(kCommandSize), pText);
    }
    void SetPath(const char *pText) {
        snprintf(fields_ + kCommandSize, kPathSize + 1, "%.*s", static_cast<int>(kPathSize), pText);
    }

    Mode mode_ = Mode::kNone;
    char fields_[kCommandSize + kPathSize + 1] = {};
    char command_[kCommandSize + 1] = {};
};

Options::Options(int argc, char **argv) {
    SetPath(TALVEK_SOCKET_PATH);
    for (int option; (option = getopt(argc, argv, "DCf:s:")) != -1;) {
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
                break;  // getopt has told
        }
    }
    memcpy(command_, fields_, strnlen(fields_, kCommandSize));
}

// A socket must not get the number of a standard stream that the caller has closed: log lines and
// the output of commands would go to the peer.
void OpenMissingStandardStreams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            static_cast<void>(open("/dev/null", O_RDWR));  // takes the lowest free number, this one
        }
    }
}

int RunDaemon(const char *pSocketPath) {
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
}  // namespace talvek

int main(int argc, char **argv) {
    talvek::OpenMissingStandardStreams();
    const talvek::Options options{argc, argv};
    switch (options.mode()) {
        case talvek::Mode::kClient:
            LOG_PLAIN("Client Mode - [%s][%s]\n", options.path(), options.command());
            return TALVEK_Client(options.path(), options.command());
        case talvek::Mode::kDaemon:
            return talvek::RunDaemon(options.path());
        case talvek::Mode::kNone:
            break;
    }
    LOG_PLAIN("Unknown mode[%d]\n", static_cast<int>(options.mode()));
    return 0;
}
