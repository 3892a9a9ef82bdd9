#ifndef TALVEK_TESTS_SERVICE_SUPPORT_PROGRAM_H
#define TALVEK_TESTS_SERVICE_SUPPORT_PROGRAM_H

#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/temp_dir.h"

// The built program as a user runs it.

namespace talvek::test {

using Arguments = std::vector<std::string>;

// What a process left behind.
struct Outcome {
    int wait = -1;       // its wait status
    std::string output;  // standard output and standard error

    [[nodiscard]] int exitStatus() const;                  // -1 when it was killed
    [[nodiscard]] std::vector<std::string> lines() const;  // of output, without line numbers
};

// Starts the program with its output going to descriptor `out` and nothing but PATH in its
// environment. `prepare` runs in the child before the program is executed. Returns its process id.
pid_t StartProgram(const Arguments &arguments, int out, const std::function<void()> &prepare = {});

// For `prepare`, as root: becomes a user who runs nothing else and may run `processes` processes;
// the limit does not bind root. The program is found also in a folder of which only its owner has
// any rights.
void BecomeUserWith(unsigned processes);

// Runs the program to its end.
Outcome RunProgram(const Arguments &arguments, const std::function<void()> &prepare = {});

// A mask in a copy of /proc/<pid>/status, such as "SigIgn:", and the bits that signals have there.
uint64_t SignalMask(const std::string &path, const std::string &name);
uint64_t SignalBits(std::initializer_list<int> signals);

// Waits for a child, at most 20 seconds (then it is killed); its wait status, -1 when it has been
// collected already.
int WaitFor(pid_t pid);

// Whether a child has ended; it can still be waited for.
bool HasEnded(pid_t pid);

// Whether a process has ended, whoever's child it is.
bool Gone(pid_t pid);

// Whether a wait status tells of an end by the signal. An emulator that cannot make this process
// the heir of orphans leaves the status of a daemon (-1) untold.
::testing::AssertionResult EndedBy(int wait, int signal);

// Waits for a condition, at most `ms`; whether it came.
bool Eventually(const std::function<bool()> &condition, int ms = 10000);

// A daemon on a socket in a directory of its own. It is stopped at the end of the scope, whatever
// happens to the test.
class Daemon {
  public:
    struct Options {
        std::string socket = "socket";       // below the directory, unless it begins with "/"
        std::function<void()> prepare = {};  // in the process, before the program is executed
        bool logToPipe = false;              // instead of the file
        bool waitForSocket = true;
        const TempDir *dir = nullptr;  // a directory of the test instead
    };

    Daemon() : Daemon(Options{}) {}
    explicit Daemon(const Options &options);
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    [[nodiscard]] const std::string &socket() const { return socket_; }
    [[nodiscard]] const TempDir &dir() const { return *dir_; }
    [[nodiscard]] pid_t pid() const { return pid_; }  // of the listening process
    [[nodiscard]] std::string log() const;
    [[nodiscard]] std::vector<std::string> logLines() const;  // without line numbers
    // Waits until the log holds a text.
    [[nodiscard]] bool Logs(const std::string &text) const;

    [[nodiscard]] std::vector<pid_t> Children() const;
    [[nodiscard]] int Descriptors() const;
    [[nodiscard]] bool Listening() const;

    // Runs the program as a client of this daemon.
    [[nodiscard]] Outcome Client(const std::string &command) const;

    // With logToPipe: closes the end that is read from.
    void CloseLog();

    // Sends a signal and waits for the end; the wait status. A daemon that ends while its
    // foreground process is still there leaves none.
    int Stop(int signal);

  private:
    TempDir ownDir_;
    const TempDir *dir_;
    std::string socket_;
    pid_t pid_ = -1;
    pid_t guard_ = -1;
    int guardPipe_ = -1;
    int logPipe_ = -1;
};

}  // namespace talvek::test

#endif
