#include "support/file_size_limit.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace talvek::test {

bool UnderFileSizeLimit(off_t limit, const std::function<bool()> &body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        // A log line in a file would meet the limit too.
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        const struct rlimit most = {static_cast<rlim_t>(limit), static_cast<rlim_t>(limit)};
        const bool good = setrlimit(RLIMIT_FSIZE, &most) == 0 && body();
        sigset_t pending;
        sigpending(&pending);
        _exit(good && sigismember(&pending, SIGXFSZ) == 0 ? 0 : 1);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace talvek::test
