#ifndef TALVEK_TESTS_SUPPORT_AWAIT_H
#define TALVEK_TESTS_SUPPORT_AWAIT_H

#include <sys/types.h>

#include <functional>
#include <string>

// Waiting for events. A test waits for what shows that the code under test has got somewhere (a
// byte, a line of the log, a state in /proc), never for a time: then it passes on a slow machine
// and on a busy one.

namespace talvek::test {

// The last resort: what has not happened by then never happens.
constexpr int kPatienceMs = 60000;

// Waits until the condition holds; false when it does not come to hold.
[[nodiscard]] bool Eventually(const std::function<bool()> &condition, int ms = kPatienceMs);

// Waits until the descriptor can be read, or its peer has gone.
[[nodiscard]] bool Readable(int fd, int ms = kPatienceMs);

// Waits until the peer of a socket or pipe has read everything that was written to it. Its read may
// still bring what is written next.
[[nodiscard]] bool HasRead(int fd);

// The state of a process or thread by its directory in /proc: 'R' runs, 'S' sleeps, 'T' is stopped,
// 'Z' is a zombie (proc(5)); '\0' for one that does not exist.
char StateOf(const std::string &directory);
char StateOf(pid_t pid);

// Waits until a process or its main thread is in a state.
[[nodiscard]] bool InState(pid_t pid, char state);

// Waits until a thread of the process is blocked in a system call whose first argument is `fd`.
[[nodiscard]] bool BlockedOn(pid_t pid, int fd);

// Waits until all other threads of this process sleep.
[[nodiscard]] bool OtherThreadsSleep();

// Whether a child has ended; it can still be waited for.
bool HasEnded(pid_t pid);

// Waits for the end of a child and returns its wait status; a child that does not end is killed and
// fails the test. -1 when it has been collected already.
int WaitFor(pid_t pid);

}  // namespace talvek::test

#endif
