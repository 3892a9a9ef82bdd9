#include "support/await.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

// Eventually and Readable use other calls than the code under test, whose calls tests catch or make
// fail.

namespace talvek::test {
namespace {

// A directory for each thread of the process; it may end at any time.
template <typename Condition>
bool AllThreads(pid_t pid, const Condition &holds) {
    std::error_code ended;
    for (const auto &thread :
         std::filesystem::directory_iterator{"/proc/" + std::to_string(pid) + "/task", ended}) {
        if (!holds(thread.path())) {
            return false;
        }
    }
    return true;
}

std::string FirstLine(const std::filesystem::path &path) {
    std::ifstream in{path};
    std::string line;
    std::getline(in, line);
    return line;
}

}  // namespace

bool Eventually(const std::function<bool()> &condition, int ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (timespec pause = {0, 100'000};;
         pause.tv_nsec = std::min<long>(2 * pause.tv_nsec, 5'000'000)) {
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
    }
}

bool Readable(int fd, int ms) {
    pollfd one = {fd, POLLIN, 0};
    return fd >= 0 && poll(&one, 1, ms) == 1 && (one.revents & POLLNVAL) == 0;
}

// The kernel counts the bytes in the peer's receive queue to the sender (unix(7), SIOCOUTQ); for a
// pipe it counts what is in it at either end.
bool HasRead(int fd) {
    return Eventually([fd] {
        int left = 0;
        return (ioctl(fd, SIOCOUTQ, &left) == 0 || ioctl(fd, FIONREAD, &left) == 0) && left == 0;
    });
}

char StateOf(const std::string &directory) {
    const std::string text = FirstLine(directory + "/stat");
    const size_t name = text.rfind(')');  // the state follows the name, which may hold anything
    return name == std::string::npos || name + 2 >= text.size() ? '\0' : text[name + 2];
}

char StateOf(pid_t pid) {
    return StateOf("/proc/" + std::to_string(pid));
}

bool InState(pid_t pid, char state) {
    return Eventually([pid, state] { return StateOf(pid) == state; });
}

// /proc/<pid>/task/<tid>/syscall has the number of the call and its arguments in hexadecimal, or
// "running" (Linux fs/proc/base.c: proc_pid_syscall).
bool BlockedOn(pid_t pid, int fd) {
    std::ostringstream wanted;
    wanted << "0x" << std::hex << fd;
    return Eventually([&] {
        return !AllThreads(pid, [&](const std::filesystem::path &thread) {
            std::istringstream call{FirstLine(thread / "syscall")};
            std::string number;
            std::string first;
            return !(call >> number >> first && first == wanted.str() && StateOf(thread) == 'S');
        });
    });
}

bool OtherThreadsSleep() {
    return Eventually([own = std::to_string(gettid())] {
        return AllThreads(getpid(), [&own](const std::filesystem::path &thread) {
            return thread.filename() == own || StateOf(thread) == 'S';
        });
    });
}

bool HasEnded(pid_t pid) {
    siginfo_t ended = {};
    const int result = waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT);
    return result == -1 || ended.si_pid == pid;
}

int WaitFor(pid_t pid) {
    if (!Eventually([pid] { return HasEnded(pid); })) {
        ADD_FAILURE() << "process " << pid << " did not end";
        kill(pid, SIGKILL);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

}  // namespace talvek::test
