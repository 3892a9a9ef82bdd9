// Linked into every test program, which starts in the same way whatever starts it: descriptors 0, 1
// and 2 are open, no signal is ignored or blocked, and the umask is the usual one. A shell starts
// what runs in its background with SIGINT ignored, nohup with SIGHUP, and the programs and commands
// of a test inherit that.
//
// The kernel is called without the C library: programs that watch its calls are not ready yet.

#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

__attribute__((constructor)) void OpenStandardStreams() {
    long fd;
    do {
        // The lowest free number; it stays open over exec, as these do.
        fd = syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        syscall(SYS_close, fd);
    }
}

__attribute__((constructor)) void ResetSignalsAndUmask() {
    constexpr size_t kMaskSize = 8;
    constexpr uint64_t kNone = 0;
    // The kernel's record begins with the action, and is all zeros for the default one.
    constexpr uintptr_t kDefault[8] = {};
    for (int signal = 1; signal < NSIG; ++signal) {
        uintptr_t action[8] = {};
        if (syscall(SYS_rt_sigaction, signal, nullptr, action, kMaskSize) == 0 &&
            action[0] == reinterpret_cast<uintptr_t>(SIG_IGN)) {
            syscall(SYS_rt_sigaction, signal, kDefault, nullptr, kMaskSize);
        }
    }
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &kNone, nullptr, kMaskSize);
    syscall(SYS_umask, 022);
}

}  // namespace
