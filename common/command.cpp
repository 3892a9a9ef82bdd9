// Commands without a shell, and the control of processes.

#include "common/command.h"

#include <dirent.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/cancel_guard.h"
#include "base/heap_buf.h"
#include "base/path.h"
#include "base/unique_dir.h"
#include "base/unique_stream.h"
#include "common/internal/child_fds.h"
#include "common/internal/module_log.h"
#include "common/internal/proc_entry.h"

namespace talvek {
namespace {

// ---- the words of a command ----

constexpr size_t kWordSlots = 128;
constexpr size_t kWordSize = 128;

// Neither block is cleared: only what the words fill is ever read.
struct WordTable {
    char words[kWordSlots][kWordSize];
    char *args[kWordSlots];
};

// Splits at blanks; a command without a word has one that is empty. False when it does not fit.
bool SplitWords(const char *pCmd, WordTable &table) {
    size_t count = 0;
    for (const char *at = pCmd + strspn(pCmd, " "); *at != '\0' || count == 0;) {
        const size_t length = strcspn(at, " ");
        if (length >= kWordSize || count + 1 >= kWordSlots) {
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

// ---- running ----

// What COM_System changes of the process's signals. SIGINT and SIGQUIT belong to the whole
// process, the mask to the thread.
class CommandSignals {
  public:
    bool Set() {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigemptyset(&ignore.sa_mask);
        if (sigaction(SIGINT, &ignore, &interrupt_) != 0 ||
            sigaction(SIGQUIT, &ignore, &quit_) != 0) {
            return false;
        }
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        return sigprocmask(SIG_BLOCK, &child, &mask_) == 0;
    }
    // Restores all of them, also when one cannot be; false then.
    bool Restore() const {
        const bool interrupt = sigaction(SIGINT, &interrupt_, nullptr) == 0;
        const bool quit = sigaction(SIGQUIT, &quit_, nullptr) == 0;
        const bool mask = sigprocmask(SIG_SETMASK, &mask_, nullptr) == 0;
        return interrupt && quit && mask;
    }

  private:
    struct sigaction interrupt_;
    struct sigaction quit_;
    sigset_t mask_;
};

// The child has one thread, a copy of the caller's; the others' locks may be held for ever and
// their work may be half done. What runs here is safe all the same: sigaction, sigprocmask,
// close_range, execv and _exit by POSIX or by being plain system calls; malloc and the locks of
// streams because the C library's fork sees to them. The text that another thread has just printed
// into stdout's buffer is that thread's to write, so this copy of it is dropped.
[[noreturn]] void RunChild(const char *pCmd, const CommandSignals &signals) {
    __fpurge(stdout);
    CloseAllButStdFds();
    signals.Restore();
    COM_ParserCMD(pCmd);
    _exit(127);
}

int CollectStatus(pid_t pid) {
    int status = -1;
    while (waitpid(pid, &status, 0) == -1) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

// Other threads read the number without a lock.
void Publish(int *pPid, pid_t pid) {
    if (pPid != nullptr) {
        __atomic_store_n(pPid, pid, __ATOMIC_RELEASE);
    }
}

// Withdraws the number between the end of the child and the collection of its status: only after the
// collection can another process get the number.
int AwaitChild(pid_t pid, int *pPid) {
    siginfo_t ignored;
    while (waitid(P_PID, static_cast<id_t>(pid), &ignored, WEXITED | WNOWAIT) == -1 &&
           errno == EINTR) {
    }
    Publish(pPid, 0);
    return CollectStatus(pid);
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

int SetInterface(const char *pEntry, const char *pIfName, const char *pDirection) {
    if (getuid() != 0 || pIfName == nullptr) {
        return -1;
    }
    char command[256];
    const int length =
        snprintf(command, sizeof command, "%s %s %s", "/sbin/ifconfig", pIfName, pDirection);
    if (length >= static_cast<int>(sizeof command)) {
        LOG_AS(pEntry, "Warning! overflow (len, size) = (%d, %d)\n", length,
               static_cast<int>(sizeof command));
        return -1;
    }
    return COM_System(command, nullptr);
}

}  // namespace
}  // namespace talvek

int COM_System(const char *pCmd, int *pPid) {
    if (pCmd == nullptr) {
        LOG("pCMD == NULL\n");
        return -1;
    }
    const talvek::CancelGuard guard;
    // Flush first, so that our output precedes the command's.
    fflush(stdout);
    talvek::CommandSignals signals;
    if (!signals.Set()) {
        return -1;
    }
    int status = -1;
    const pid_t pid = fork();
    if (pid == 0) {
        talvek::RunChild(pCmd, signals);
    }
    if (pid < 0) {
        LOG_ERRNO("fork() failed : %s\n");
    } else {
        talvek::Publish(pPid, pid);
        status = talvek::AwaitChild(pid, pPid);
    }
    return signals.Restore() ? status : -1;
}

int COM_ParserCMD(const char *pCmd) {
    if (pCmd == nullptr) {
        LOG("pCMD == NULL\n");
        return -1;
    }
    const talvek::HeapBuf<talvek::WordTable> table{
        static_cast<talvek::WordTable *>(malloc(sizeof(talvek::WordTable)))};
    if (!table) {
        errno = ENOMEM;
    } else if (!talvek::SplitWords(pCmd, table[0])) {
        errno = E2BIG;
    } else {
        execv(table[0].args[0], table[0].args);
    }
    const int error = errno;
    const char *first = pCmd + strspn(pCmd, " ");
    LOG("[%.*s] error : %s\n", static_cast<int>(strcspn(first, " ")), first, strerror(error));
    return -1;
}

int COM_KillPid(int pid, unsigned usec) {
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
    if (pName == nullptr) {
        return pid < 1 ? -1 : talvek::SendSignal(pid, sig);
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
        const int target = talvek::PidOfEntry(name);
        LOG("[pid:%d] - kill(%d[%s], %d)\n", getpid(), target, pName, sig);
        // An entry that is no process ("self") ends the search when it matches.
        // Held by KillProcess.DoesNotSignalItsOwnProgramByName.
        return target > 0 ? talvek::SendSignal(target, sig) : -1;
    }
    return -1;
}

int COM_CheckProcState(tProcState *pProc) {
    if (pProc == nullptr) {
        return -1;
    }
    const talvek::CancelGuard guard;
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
    while (!talvek::HasPassed(start, *pTime) && rounds < maxRounds) {
        ++rounds;
        nanosleep(&talvek::kShortRound, nullptr);
    }
    if (rounds >= maxRounds) {
        LOG("Woops! timeout = %d\n", rounds);
    }
    return rounds;
}

int COM_IfUp(const char *pIfName) {
    return talvek::SetInterface(__func__, pIfName, "up");
}

int COM_IfDown(const char *pIfName) {
    return talvek::SetInterface(__func__, pIfName, "down");
}

int COM_CallLocked(pthread_mutex_t *pMutex, void *pArg, int (*pFn)(void *pArg)) {
    if (pMutex == nullptr || pFn == nullptr) {
        return -1;
    }
    const int error = pthread_mutex_lock(pMutex);
    if (error != 0) {
        LOG("pthread_mutex_lock() error : %s\n", strerror(error));
        return -1;
    }
    int result = 0;
    pthread_cleanup_push(talvek::Unlock, pMutex);
    result = pFn(pArg);
    pthread_cleanup_pop(1);
    return result;
}
