// Commands without a shell, and the control of processes.

#include "common/command.h"

#include <dirent.h>
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/cancel_guard.h"
#include "base/heap_buf.h"
#include "base/path.h"
#include "base/scope_exit.h"
#include "base/unique_dir.h"
#include "base/unique_stream.h"
#include "common/internal/child_fds.h"
#include "common/internal/module_log.h"
#include "common/internal/proc_entry.h"

// Defined in a program with ThreadSanitizer, even if this library is compiled without it.
extern "C" __attribute__((weak)) void __tsan_init();

namespace {

// ---- the words of a command ----

// Neither block is cleared: only what the words fill is ever read.
struct WordTable {
    char words[COM_COMMAND_WORDS][COM_COMMAND_WORD_SIZE];
    char *args[COM_COMMAND_WORDS + 1];
};

// Splits at blanks; a command of blanks alone has one empty word. False when it does not fit.
bool SplitWords(const char *pCmd, WordTable &table) {
    size_t count = 0;
    for (const char *at = pCmd + strspn(pCmd, " "); *at != '\0' || count == 0;) {
        const size_t length = strcspn(at, " ");
        if (length >= COM_COMMAND_WORD_SIZE || count >= COM_COMMAND_WORDS) {
            return false;
        }
        memcpy(table.words[count], at, length);
        table.words[count][length] = '\0';
        table.args[count] = table.words[count];
        ++count;
        at += length;
        at += strspn(at, " ");
    }
    table.args[count] = nullptr;
    return true;
}

void LogNotExecuted(const char *pCmd, int error) {
    const char *first = pCmd + strspn(pCmd, " ");
    LOG_AS("COM_ParserCMD", "[%.*s] error : %s\n", static_cast<int>(strcspn(first, " ")), first,
           strerror(error));
}

// ---- running ----

// Code that the child runs on the parent's memory. It is not instrumented: the child never returns
// from these frames, so what a sanitizer recorded for them would remain in the parent.
#define TALVEK_CHILD_CODE __attribute__((no_sanitize("address", "thread")))

// What COM_System changes of the process's signals. The actions of SIGINT and SIGQUIT belong to the
// whole process, the mask to the thread.
class CommandSignals {
  public:
    // Ignores SIGINT and SIGQUIT, and blocks every signal until the child has its own actions.
    bool Set() {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigemptyset(&ignore.sa_mask);
        if (sigaction(SIGINT, &ignore, &interrupt_) != 0 ||
            sigaction(SIGQUIT, &ignore, &quit_) != 0) {
            return false;
        }
        sigset_t all;
        sigfillset(&all);
        return sigprocmask(SIG_BLOCK, &all, &mask_) == 0;
    }
    // Sets the caller's mask again, with SIGCHLD blocked too.
    bool BlockChildOnly() const {
        sigset_t mask = mask_;
        sigaddset(&mask, SIGCHLD);
        return sigprocmask(SIG_SETMASK, &mask, nullptr) == 0;
    }
    // Restores all of them, even if one fails; false then.
    bool Restore() const {
        const bool interrupt = sigaction(SIGINT, &interrupt_, nullptr) == 0;
        const bool quit = sigaction(SIGQUIT, &quit_, nullptr) == 0;
        const bool mask = sigprocmask(SIG_SETMASK, &mask_, nullptr) == 0;
        return interrupt && quit && mask;
    }
    // Gives the child the caller's mask and the actions that execve would leave: what the caller
    // ignored stays ignored, a handler becomes the default action. No handler may run in the child,
    // on the parent's memory.
    TALVEK_CHILD_CODE void RestoreInChild() const {
        struct sigaction standard = {};
        standard.sa_handler = SIG_DFL;
        for (int sig = 1; sig < NSIG; ++sig) {
            struct sigaction now;
            if (sigaction(sig, nullptr, &now) != 0) {
                continue;
            }
            const auto caller = sig == SIGINT    ? interrupt_.sa_handler
                                : sig == SIGQUIT ? quit_.sa_handler
                                                 : now.sa_handler;
            if (caller != SIG_IGN && now.sa_handler != SIG_DFL) {
                sigaction(sig, &standard, nullptr);
            }
        }
        sigprocmask(SIG_SETMASK, &mask_, nullptr);
    }

  private:
    struct sigaction interrupt_;
    struct sigaction quit_;
    sigset_t mask_;
};

// The child's stack, and what it needs to execute the program.
struct Launch {
    alignas(max_align_t) char stack[16 * 1024];
    WordTable table;
    bool fits;  // whether the command fits the table
    const CommandSignals *signals;
    int *error;  // why the program is not executed; 0 if it is
};

// Runs in the child, on Launch::stack and the parent's memory. It makes system calls only, since
// other threads of the parent may hold any lock. The result is the exit code.
TALVEK_CHILD_CODE int RunChild(void *pLaunch) {
    Launch &launch = *static_cast<Launch *>(pLaunch);
    talvek::CloseAllButStdFds();
    launch.signals->RestoreInChild();
    if (launch.fits) {
        execv(launch.table.args[0], launch.table.args);
    } else {
        errno = E2BIG;
    }
    *launch.error = errno;
    return COM_NOT_EXECUTED;
}

#undef TALVEK_CHILD_CODE

int CollectStatus(pid_t pid) {
    int status = -1;
    while (waitpid(pid, &status, 0) == -1) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

// Other threads read the id without a lock.
void Publish(int *pPid, pid_t pid) {
    if (pPid != nullptr) {
        __atomic_store_n(pPid, pid, __ATOMIC_RELEASE);
    }
}

// Clears the published id between the end of the child and the collection of its status: only after
// the collection can another process get the same id.
int AwaitChild(pid_t pid, int *pPid) {
    siginfo_t ignored;
    while (waitid(P_PID, static_cast<id_t>(pid), &ignored, WEXITED | WNOWAIT) == -1 &&
           errno == EINTR) {
    }
    Publish(pPid, 0);
    return CollectStatus(pid);
}

// Runs the program and returns its status; -1 when no process can be made.
//
// docs/decisions/commands.md: the child runs on this process's memory, and this thread waits, until
// the child executes the program (vfork). So the cost does not grow with the memory in use.
// qemu-user and valgrind make a copy all the same; the child's error reaches the parent through a
// page that is shared even then.
int RunAndAwait(const char *pCmd, const CommandSignals &signals, int *pPid) {
    constexpr const char *kFunction = "COM_System";
    constexpr int kAccess = PROT_READ | PROT_WRITE;
    talvek::HeapBuf<Launch> launch;
    void *page = launch.Resize(1)
                     ? mmap(nullptr, sizeof(int), kAccess, MAP_SHARED | MAP_ANONYMOUS, -1, 0)
                     : MAP_FAILED;
    if (page == MAP_FAILED) {
        LOG_ERRNO_AS(kFunction, "fork() failed : %s\n");
        return -1;
    }
    const talvek::ScopeExit unmap{[page] { munmap(page, sizeof(int)); }};
    launch[0].fits = SplitWords(pCmd, launch[0].table);
    launch[0].signals = &signals;
    launch[0].error = static_cast<int *>(page);
    // ThreadSanitizer treats every clone as a fork and changes its own data in the child. With it
    // the child is a copy, so that the parent's data is unchanged.
    const int sharing = __tsan_init != nullptr ? 0 : CLONE_VM | CLONE_VFORK;
    const pid_t pid =
        clone(RunChild, launch[0].stack + sizeof launch[0].stack, sharing | SIGCHLD, launch.get());
    if (pid < 0) {
        LOG_ERRNO_AS(kFunction, "fork() failed : %s\n");
        return -1;
    }
    Publish(pPid, pid);
    const bool unblocked = signals.BlockChildOnly();
    const int status = AwaitChild(pid, pPid);
    if (status != 0 && *launch[0].error != 0) {
        LogNotExecuted(pCmd, *launch[0].error);
    }
    return unblocked ? status : -1;
}

// ---- sleeping ----

constexpr struct timespec kShortRound = {0, 100'000};

bool HasPassed(const struct timeval &start, const struct timespec &time) {
    struct timeval now = {};
    struct timeval passed;
    gettimeofday(&now, nullptr);
    timersub(&now, &start, &passed);
    const struct timeval wanted = {time.tv_sec, static_cast<suseconds_t>(time.tv_nsec / 1000)};
    return !timercmp(&passed, &wanted, <);
}

// ---- signalling ----

int SendSignal(int pid, int sig) {
    const int result = kill(pid, sig);
    if (result != 0) {
        LOG_ERRNO_AS("COM_KillProcess", "kill(%d, %d) fail : %s\n", pid, sig);
    }
    return result;
}

void Unlock(void *pMutex) {
    pthread_mutex_unlock(static_cast<pthread_mutex_t *>(pMutex));
}

int SetInterfaceState(const char *pFunction, const char *pIfName, const char *pDirection) {
    if (getuid() != 0 || pIfName == nullptr) {
        return -1;
    }
    char command[256];
    const int length =
        snprintf(command, sizeof command, "%s %s %s", "/sbin/ifconfig", pIfName, pDirection);
    if (length >= static_cast<int>(sizeof command)) {
        LOG_AS(pFunction, "Warning! overflow (len, size) = (%d, %d)\n", length,
               static_cast<int>(sizeof command));
        return -1;
    }
    return COM_System(command, nullptr);
}

}  // namespace

int COM_System(const char *pCmd, int *pPid) {
    const talvek::CancelGuard guard;
    if (pCmd == nullptr) {
        LOG("pCMD == NULL\n");
        return -1;
    }
    // Flush first, so that our output precedes the command's.
    fflush(stdout);
    CommandSignals signals;
    if (!signals.Set()) {
        return -1;
    }
    const int status = RunAndAwait(pCmd, signals, pPid);
    return signals.Restore() ? status : -1;
}

int COM_ParserCMD(const char *pCmd) {
    if (pCmd == nullptr) {
        LOG("pCMD == NULL\n");
        return -1;
    }
    talvek::HeapBuf<WordTable> table;
    if (table.Resize(1)) {
        if (SplitWords(pCmd, table[0])) {
            execv(table[0].args[0], table[0].args);
        } else {
            errno = E2BIG;
        }
    }
    LogNotExecuted(pCmd, errno);
    return -1;
}

int COM_KillPid(int pid, unsigned usec) {
    const talvek::CancelGuard guard;
    if (pid < 1) {
        LOG("Invalid pid = %d\n", pid);
        return -1;
    }
    if (kill(pid, SIGTERM) != 0) {
        LOG_ERRNO("kill(%d) failed : %s\n", pid);
        return -1;
    }
    if (usec != 0) {
        struct timespec time = {};
        time.tv_sec = static_cast<time_t>(usec / 1'000'000);
        time.tv_nsec = static_cast<long>(usec % 1'000'000) * 1000;
        COM_SleepAtLeast(&time, 1000);
    }
    return 0;
}

int COM_KillProcess(const char *pName, int pid, int sig) {
    const talvek::CancelGuard guard;
    if (pName == nullptr) {
        return pid < 1 ? -1 : SendSignal(pid, sig);
    }
    const talvek::UniqueDir proc{opendir("/proc")};
    if (!proc) {
        LOG_ERRNO("opendir(%s) error : %s\n", "/proc");
        return -1;
    }
    while (const struct dirent *entry = readdir(proc.get())) {
        const char *name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0 || strcmp(name, "lost+found") == 0) {
            continue;
        }
        char line[79 + 1];
        if (!talvek::ReadCmdline(name, line, sizeof line) ||
            strncmp(line, pName, strlen(pName)) != 0) {
            continue;
        }
        const int target = talvek::ParseEntryNumber(name);
        LOG("[pid:%d] - kill(%d[%s], %d)\n", getpid(), target, pName, sig);
        // An entry that is no process ("self") ends the search when it matches.
        // Tested by KillProcess.DoesNotSignalItsOwnProgramByName.
        return target > 0 ? SendSignal(target, sig) : -1;
    }
    return -1;
}

int COM_CheckProcState(tProcState *pProc) {
    const talvek::CancelGuard guard;
    if (pProc == nullptr) {
        return -1;
    }
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/stat", pProc->pid);
    const talvek::UniqueFile stream{talvek::OpenStream(path, "r")};
    char line[256];
    if (!stream || fgets(line, sizeof line, stream.get()) == nullptr) {
        return -1;
    }
    constexpr const char *kSeparators = "/ \r\n";
    char *rest = nullptr;
    const char *token = strtok_r(line, kSeparators, &rest);
    for (int i = 1; i < 3 && token != nullptr; ++i) {
        token = strtok_r(nullptr, kSeparators, &rest);
    }
    if (token == nullptr) {
        return -1;
    }
    snprintf(pProc->state, sizeof pProc->state, "%.3s", token);
    return pProc->state[0] == 'T' || pProc->state[0] == 'Z' ? -1 : 0;
}

int COM_SleepAtLeast(const struct timespec *pTime, int maxRounds) {
    if (pTime == nullptr) {
        return -1;
    }
    struct timeval start = {};
    gettimeofday(&start, nullptr);
    nanosleep(pTime, nullptr);
    int rounds = 0;
    while (!HasPassed(start, *pTime) && rounds < maxRounds) {
        ++rounds;
        nanosleep(&kShortRound, nullptr);
    }
    if (rounds >= maxRounds) {
        LOG("Woops! timeout = %d\n", rounds);
    }
    return rounds;
}

int COM_IfUp(const char *pIfName) {
    const talvek::CancelGuard guard;
    return SetInterfaceState(__func__, pIfName, "up");
}

int COM_IfDown(const char *pIfName) {
    const talvek::CancelGuard guard;
    return SetInterfaceState(__func__, pIfName, "down");
}

int COM_CallLocked(pthread_mutex_t *pMutex, void *pArg, int (*pFunction)(void *pArg)) {
    if (pMutex == nullptr || pFunction == nullptr) {
        return -1;
    }
    const int error = pthread_mutex_lock(pMutex);
    if (error != 0) {
        LOG("pthread_mutex_lock() error : %s\n", strerror(error));
        return -1;
    }
    int result = 0;
    pthread_cleanup_push(Unlock, pMutex);
    result = pFunction(pArg);
    pthread_cleanup_pop(1);
    return result;
}
