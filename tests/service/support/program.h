#ifndef TALVEK_TESTS_SERVICE_SUPPORT_PROGRAM_H
#define TALVEK_TESTS_SERVICE_SUPPORT_PROGRAM_H

#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include "support/await.h"
#include "support/emulator.h"
#include "support/temp_dir.h"

// The program as a user runs it.

namespace talvek::test {

// The program under test: that of the environment variable TALVEK_PROGRAM, else the one that was
// built for this machine's users.
const char *ProgramPath();

// Whether it must be a static file, and how its C library words an error.
bool StaticProgram();
const char *ProgramErrorText(int error);

using Arguments = std::vector<std::string>;

// A program that has ended.
struct Outcome {
    int wait = -1;       // wait status
    std::string output;  // standard output and standard error

    [[nodiscard]] int exitStatus() const;                  // -1 when it was killed
    [[nodiscard]] std::vector<std::string> lines() const;  // output without line numbers
};

// Starts the program with its output on descriptor `out` and only PATH in its environment.
// `prepare` runs in the child before the program is executed. Returns the process id.
pid_t StartProgram(const Arguments &arguments, int out, const std::function<void()> &prepare = {});

// For `prepare`, as root: becomes a user without other processes who may have `processes` of them
// (the limit does not bind root). The user keeps the right to read any folder, so that the program
// is found in a private one too.
void BecomeUserWith(unsigned processes);

// Runs the program to its end.
Outcome RunProgram(const Arguments &arguments, const std::function<void()> &prepare = {});

// A mask such as "SigIgn:" in a copy of /proc/<pid>/status, and the bits of signals in it.
uint64_t SignalMask(const std::string &path, const std::string &name);
uint64_t SignalBits(std::initializer_list<int> signals);

// Whether a process has ended. It need not be a child.
bool Gone(pid_t pid);

// The children of a process with one thread, zombies too.
std::vector<pid_t> ChildrenOf(pid_t pid);

// Fills a pipe, given by either end, so that the next write to it blocks.
void FillPipe(int end);

// Whether a wait status is that of an end by the signal. Under an emulator in which this process
// cannot adopt orphans, a daemon has no status (-1).
::testing::AssertionResult EndedBy(int wait, int signal);

// A daemon with its socket in a directory of its own. It is killed at the end of the scope, even
// when the test process dies.
class Daemon {
  public:
    struct Options {
        std::string socket = "socket";       // in the directory, unless it begins with "/"
        std::function<void()> prepare = {};  // runs before the program is executed
        bool logToPipe = false;              // instead of to a file
        bool logToTerminal = false;          // instead of to a file
        bool waitForSocket = true;
        const TempDir *dir = nullptr;  // a directory of the test's instead
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
    [[nodiscard]] bool Listening() const;  // this daemon, not an earlier one at its path

    // Runs the program as a client of this daemon.
    [[nodiscard]] Outcome Client(const std::string &command) const;

    // With logToPipe: what its reader does.
    void CloseLog();
    void StallLog() const;  // fills the pipe, so that the next write blocks
    void DrainLog() const;  // reads what is there

    // With logToTerminal: TCOOFF stops its output, as ^S does, and TCOON continues it.
    void ControlTerminal(int action) const;

    // Sends a signal (0 for none), waits for the end and returns the wait status. A daemon that
    // ends before its foreground process has none.
    int Stop(int signal);

  private:
    TempDir ownDir_;
    const TempDir *dir_;
    std::string socket_;
    std::set<std::string> earlier_;  // sockets that listen at the path already
    pid_t pid_ = -1;
    pid_t guard_ = -1;
    int guardPipe_ = -1;
    int logPipe_ = -1;  // the reader's end of the pipe or terminal
};

// Whether TALVEK_TORTURE is set: crowds are larger, and the time in which a good client is served
// counts.
bool Torturing();

// Sends a good client, which must get its status; with TALVEK_TORTURE within a second.
void ExpectServes(const Daemon &daemon);

// After everything that clients did: a good client is served, and the listening process has no
// child and no zombie, only the descriptors that it started with, and uses no processor time.
void ExpectNothingLeft(const Daemon &daemon, int descriptors);

}  // namespace talvek::test

#endif
