// The registry of the program's threads, and the watchdog.

#include "common/thread.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "base/cancel_guard.h"
#include "base/file_limit_guard.h"
#include "base/heap_buf.h"
#include "base/mutex_lock.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "base/unique_stream.h"
#include "common/command.h"
#include "common/file.h"
#include "common/internal/module_log.h"

namespace {

using talvek::CancelGuard;
using talvek::Mutex;
using talvek::MutexLock;

constexpr char kPidDir[] = "/var/run";
constexpr int kMaxSleepRounds = 1000;

struct Watchdog {
    pthread_t thread;
    bool runs;  // false in a forked child: the thread is the parent's
    struct timespec period;
};

// Guards the registry. It is ready from the start and never destroyed: threads may register before
// the watchdog is started and after it has ended.
constinit Mutex g_mutex;
// Ends with an entry whose pid is 0.
tThreadInfo *g_pThreads TALVEK_GUARDED_BY(g_mutex) TALVEK_PT_GUARDED_BY(g_mutex) = nullptr;
constinit Mutex g_watchdogMutex;
Watchdog g_watchdog TALVEK_GUARDED_BY(g_watchdogMutex) = {};

// A thread may hold g_mutex while it waits for the stream of the log, and a program may fork while
// it holds that stream. So fork waits only for g_arrayMutex, which guards a change of the array (it
// logs only a failure), and the child starts with free mutexes.
constinit Mutex g_arrayMutex TALVEK_ACQUIRED_AFTER(g_mutex);

void LockArray() TALVEK_ACQUIRE(g_arrayMutex) {
    g_arrayMutex.Lock();
}

void UnlockArray() TALVEK_RELEASE(g_arrayMutex) {
    g_arrayMutex.Unlock();
}

void ResetInChild() TALVEK_RELEASE(g_arrayMutex) {
    UnlockArray();
    g_mutex.Reset();
    g_watchdogMutex.Reset();
    const MutexLock lock{g_watchdogMutex};
    g_watchdog.runs = false;
}

void PrepareForForks() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_atfork(LockArray, UnlockArray, ResetInChild); });
}

size_t CountThreads() TALVEK_REQUIRES(g_mutex) {
    size_t count = 0;
    while (g_pThreads != nullptr && g_pThreads[count].pid != 0) {
        ++count;
    }
    return count;
}

// Opens a pid file and empties it. A symbolic link in its place is not followed, a FIFO without a
// reader does not block, and a file that has another name too is not emptied.
talvek::UniqueFd OpenPidFile(const char *pPath) {
    talvek::UniqueFd fd{
        talvek::OpenPath(pPath, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK, 0666)};
    struct stat st;
    if (!fd || fstat(fd.get(), &st) != 0) {
        return {};
    }
    if (!S_ISREG(st.st_mode) || st.st_nlink > 1) {
        errno = S_ISREG(st.st_mode) ? EMLINK : ENXIO;
        return {};
    }
    if (ftruncate(fd.get(), 0) != 0) {
        return {};
    }
    return fd;
}

void WritePidFile(const char *pName) {
    constexpr const char *kFunction = "COM_LogThread";
    COM_Mkdir(kPidDir, 0775);
    // The path is never truncated, since that would name another file.
    const size_t size = sizeof "/var/run/.thread.pid" + strlen(pName);
    talvek::HeapBuf<char> path;
    if (path.Resize(size)) {
        snprintf(path.get(), size, "%s/%s.thread.pid", kPidDir, pName);
    }
    talvek::UniqueFd fd = path ? OpenPidFile(path.get()) : talvek::UniqueFd{};
    const talvek::FileLimitGuard limit;
    const talvek::UniqueFile file{talvek::StreamOn(fd.Release(), "w")};
    if (!file) {
        LOG_ERRNO_AS(kFunction, "fopen(%s) error : %s\n", path ? path.get() : pName);
        return;
    }
    if (fprintf(file.get(), "%d", getpid()) < 0 || fflush(file.get()) != 0) {
        LOG_ERRNO_AS(kFunction, "[%s] fprintf() error : %s\n", pName);
    }
}

// Checks one entry and stores its state.
bool IsHealthy(tThreadInfo &thread) {
    tProcState process = {};
    process.pid = thread.pid;
    memcpy(process.state, thread.state, sizeof process.state);
    const int result = COM_CheckProcState(&process);
    memcpy(thread.state, process.state, sizeof thread.state);
    return result == 0;
}

void CheckAllThreads() TALVEK_REQUIRES(g_mutex) {
    const size_t count = CountThreads();
    for (size_t i = 0; i < count; ++i) {
        if (!IsHealthy(g_pThreads[i])) {
            LOG_AS("COM_ThreadWatchdog", "Warnning!! [pid = %d] [%s] process error\n",
                   g_pThreads[i].pid, g_pThreads[i].name);
        }
    }
}

}  // namespace

int COM_LogThread(const char *pName) {
    if (pName == nullptr) {
        return -1;
    }
    const CancelGuard guard;
    PrepareForForks();
    // The new entry and a new terminator replace the old terminator together.
    tThreadInfo pair[2] = {};
    pair[0].pid = getpid();
    snprintf(pair[0].name, sizeof pair[0].name, "%s", pName);
    WritePidFile(pName);

    const MutexLock lock{g_mutex};
    const size_t count = CountThreads();
    const MutexLock change{g_arrayMutex};
    void *pBlock = g_pThreads;
    if (COM_ReallocAndCopyBuf((count + 2) * sizeof(tThreadInfo), &pBlock,
                              count * sizeof(tThreadInfo), pair, sizeof pair) == nullptr) {
        return -1;
    }
    g_pThreads = static_cast<tThreadInfo *>(pBlock);
    return static_cast<int>(count) + 1;
}

int COM_LogThreadMemUsage(int amount) {
    const CancelGuard guard;
    PrepareForForks();
    const MutexLock lock{g_mutex};
    if (g_pThreads == nullptr) {
        return -1;
    }
    const int32_t pid = getpid();
    const size_t count = CountThreads();
    for (size_t i = 0; i < count; ++i) {
        tThreadInfo &thread = g_pThreads[i];
        if (thread.pid == pid) {
            // A total that passes 32 bits wraps.
            thread.mem = static_cast<int32_t>(static_cast<uint32_t>(thread.mem) +
                                              static_cast<uint32_t>(amount));
            LOG("[%zu] : %d - [%ld] - %s\n", i, thread.pid, static_cast<long>(thread.mem),
                thread.name);
            return 0;
        }
    }
    return 0;
}

void COM_ShowThread(void) {
    const CancelGuard guard;
    PrepareForForks();
    // A registration may move the array, so reading it takes the lock too.
    const MutexLock lock{g_mutex};
    const size_t count = CountThreads();
    for (size_t i = 0; i < count; ++i) {
        const tThreadInfo &thread = g_pThreads[i];
        LOG("[%zu] : %d - [%s] - [%s] - [%ld]\n", i, thread.pid, thread.name, thread.state,
            static_cast<long>(thread.mem));
    }
}

int COM_CreateThreadWatchdog(int period) {
    const CancelGuard guard;
    PrepareForForks();
    const MutexLock lock{g_watchdogMutex};
    Watchdog &watchdog = g_watchdog;
    int error = EBUSY;
    if (!watchdog.runs) {
        // Checks without a pause would keep a processor busy.
        watchdog.period = {period < 1 ? 1 : period, 0};
        error = pthread_create(&watchdog.thread, nullptr, COM_ThreadWatchdog, &watchdog);
        watchdog.runs = error == 0;
    }
    if (error != 0) {
        LOG("pthread_create() error = %d\n", error);
    }
    return error;
}

int COM_DestroyThreadWatchdog(void) {
    const CancelGuard guard;
    const MutexLock lock{g_watchdogMutex};
    Watchdog &watchdog = g_watchdog;
    const int error = watchdog.runs ? pthread_cancel(watchdog.thread) : ESRCH;
    if (error != 0) {
        LOG("pthread_cancel() error [%d]\n", error);
        return error;
    }
    pthread_join(watchdog.thread, nullptr);
    watchdog.runs = false;
    return 0;
}

void *COM_ThreadWatchdog(void *pData) {
    if (pData == nullptr) {
        return nullptr;
    }
    const Watchdog &watchdog = *static_cast<const Watchdog *>(pData);
    for (;;) {
        {
            const CancelGuard guard;  // a check is never cut short
            const MutexLock lock{g_mutex};
            CheckAllThreads();
        }
        pthread_testcancel();
        COM_SleepAtLeast(&watchdog.period, kMaxSleepRounds);
    }
}
