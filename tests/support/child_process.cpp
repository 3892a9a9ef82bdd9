#include "support/child_process.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/await.h"
#include "support/private_world.h"

namespace talvek::test {

ChildProcess::ChildProcess(const char *path, const std::vector<std::string> &args) {
    // The exec closes the write end.
    int ends[2];
    EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
    std::vector<char *> list;
    for (const std::string &arg : args) {
        list.push_back(const_cast<char *>(arg.c_str()));
    }
    list.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        execv(path, list.data());
        const int error = errno;
        static_cast<void>(!write(ends[1], &error, sizeof error));
        _exit(127);
    }
    close(ends[1]);
    int error = 0;
    EXPECT_EQ(0, read(ends[0], &error, sizeof error)) << path << " : " << strerror(error);
    close(ends[0]);
    // The kernel closes the descriptor before it shows the new arguments.
    const std::string proc = "/proc/" + std::to_string(pid_);
    EXPECT_TRUE(Eventually([&] {
        const char state = StateOf(proc);
        return state == 'Z' || state == '\0' || !ReadFile(proc + "/cmdline").empty();
    })) << path;
}

ChildProcess::~ChildProcess() {
    if (!collected_ && pid_ > 0) {
        kill(pid_, SIGKILL);
        Wait();
    }
}

bool ChildProcess::Lives() {
    if (!collected_) {
        collected_ = waitpid(pid_, &status_, WNOHANG) == pid_;
    }
    return !collected_;
}

int ChildProcess::Wait() {
    while (!collected_ && waitpid(pid_, &status_, 0) == -1 && errno == EINTR) {
    }
    collected_ = true;
    return status_;
}

void ChildProcess::AwaitZombie() const {
    siginfo_t info;
    EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT));
}

}  // namespace talvek::test
