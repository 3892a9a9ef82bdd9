// In the library's objects each name of calls.def begins with __wrap_, so that its calls, and no
// others of the program, come here.

#include "faults/wrappers.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace talvek::faults {

Run *g_run = nullptr;
std::atomic<long> g_blocks = 0;
std::set<pid_t> g_children;
std::vector<Site> g_sites;

namespace {

enum Callee {
#define CALL(type, name, ...) k_##name,
#define RELEASE(type, name, ...) k_##name,
#define TRANSFER(type, name, ...) k_##name,
#define BLOCK(name, ...) k_##name,
#define OWN(name, ...) k_##name,
#define STAND_IN(name)
#include "faults/calls.def"
#undef CALL
#undef RELEASE
#undef TRANSFER
#undef BLOCK
#undef OWN
};

struct Entry {
    const char *name;
    std::vector<int> errors;
};

const Entry kEntries[] = {
#define CALL(type, name, params, args, result, ...) {#name, {__VA_ARGS__}},
#define RELEASE(type, name, params, args, result, ...) {#name, {__VA_ARGS__}},
#define TRANSFER(type, name, params, args, ...) {#name, {__VA_ARGS__}},
#define BLOCK(name, ...) {#name, {ENOMEM}},
#define OWN(name, ...) {#name, {__VA_ARGS__}},
#include "faults/calls.def"
#undef CALL
#undef RELEASE
#undef TRANSFER
#undef BLOCK
#undef OWN
};

// A call through a pointer has a site of its own after the listed ones, one for each function.
int SiteOf(Callee callee, const void *pReturns) {
    const auto end = g_sites.end() - std::size(kEntries);
    const auto at = std::lower_bound(
        g_sites.begin(), end, reinterpret_cast<uintptr_t>(pReturns),
        [](const Site &site, uintptr_t address) { return site.returns < address; });
    const bool listed = at != end && at->returns == reinterpret_cast<uintptr_t>(pReturns);
    return static_cast<int>((listed ? at : end + callee) - g_sites.begin());
}

// The error with which this call fails, 0 for none.
int Fails(Callee callee, const void *pReturns) {
    if (g_run == nullptr || !g_run->armed) {
        return 0;
    }
    const int site = SiteOf(callee, pReturns);
    const uint32_t nth = g_run->calls[site]++;
    for (int i = 0; i < g_run->planned; ++i) {
        const Fault &fault = g_run->plan[i];
        if (fault.site == site && nth >= fault.from && nth < fault.until) {
            g_run->failed[site] = true;
            if (fault.error > 0) {
                errno = fault.error;
            }
            return fault.error;
        }
    }
    return 0;
}

// A wait longer than this is cut to it, and the clocks move on by the rest.
constexpr int64_t kLongestWaitNs = 300'000'000;

int64_t NsOf(const timespec &t) {
    return int64_t{t.tv_sec} * 1'000'000'000 + t.tv_nsec;
}

}  // namespace

const char *CalleeName(int callee) {
    return kEntries[callee].name;
}

const std::vector<int> &ErrorsOf(int callee) {
    return kEntries[callee].errors;
}

std::vector<Site> FindSites(const char *pProgram) {
    std::vector<Site> sites;
    const std::string command = std::string{"objdump -d --no-show-raw-insn "} + pProgram;
    FILE *listing = popen(command.c_str(), "re");
    char line[512];
    std::string function;
    int called = -1;
    while (fgets(line, sizeof line, listing) != nullptr) {
        char name[256];
        uintptr_t address = 0;
        if (sscanf(line, "%lx <%255[^>]>:", &address, name) == 2) {
            function = name;
        } else if (sscanf(line, " %lx:", &address) == 1) {
            if (called >= 0) {
                sites.push_back({address, called, strdup(function.c_str())});
                called = -1;
            }
            if (sscanf(line, " %*x: call %*x <__wrap_%255[^>]>", name) == 1) {
                const auto *entry =
                    std::find_if(std::begin(kEntries), std::end(kEntries),
                                 [&](const Entry &known) { return strcmp(known.name, name) == 0; });
                called = entry != std::end(kEntries) ? static_cast<int>(entry - kEntries) : -1;
            }
        }
    }
    pclose(listing);
    for (int callee = 0; callee < static_cast<int>(std::size(kEntries)); ++callee) {
        sites.push_back({kThroughPointer, callee, "through a pointer"});
    }
    return sites;
}

}  // namespace talvek::faults

using namespace talvek::faults;

#define FAILS(name) Fails(k_##name, __builtin_return_address(0))
#define WRAPPER(type, name, params)       \
    extern "C" type __wrap_##name params; \
    type __wrap_##name params

#define CALL(type, name, params, args, result, ...) \
    WRAPPER(type, name, params) {                   \
        const int error = FAILS(name);              \
        return error != 0 ? (result) : ::name args; \
    }
#define RELEASE(type, name, params, args, result, ...) \
    WRAPPER(type, name, params) {                      \
        const int error = FAILS(name);                 \
        const type done = ::name args;                 \
        if (error == 0) {                              \
            return done;                               \
        }                                              \
        errno = error;                                 \
        return result;                                 \
    }
#define TRANSFER(type, name, params, args, ...)     \
    WRAPPER(type, name, params) {                   \
        const int error = FAILS(name);              \
        if (error == kShort && size > 1) {          \
            size = 1;                               \
        } else if (error != 0 && error != kShort) { \
            return error == kEnd ? 0 : -1;          \
        }                                           \
        return ::name args;                         \
    }
#define BLOCK(name, params, args)                          \
    WRAPPER(void *, name, params) {                        \
        void *block = FAILS(name) ? nullptr : ::name args; \
        g_blocks += block != nullptr;                      \
        return block;                                      \
    }
#define OWN(name, ...)
#include "faults/calls.def"

WRAPPER(void *, realloc, (void *block, size_t size)) {
    if (FAILS(realloc) != 0) {
        return nullptr;
    }
    const bool first = block == nullptr;
    void *grown = realloc(block, size);
    g_blocks += first && grown != nullptr;
    return grown;
}
WRAPPER(void, free, (void *block)) {
    g_blocks -= block != nullptr;
    free(block);
}
WRAPPER(void *, mmap, (void *at, size_t size, int access, int flags, int fd, off_t offset)) {
    if (FAILS(mmap) != 0) {
        return MAP_FAILED;
    }
    void *mapping = mmap(at, size, access, flags, fd, offset);
    g_blocks += mapping != MAP_FAILED;
    return mapping;
}
WRAPPER(int, munmap, (void *mapping, size_t size)) {
    --g_blocks;
    return munmap(mapping, size);
}
static ssize_t CountedLine(char **line, size_t *size, int end, FILE *stream) {
    const bool first = *line == nullptr;
    const ssize_t length = __getdelim(line, size, end, stream);
    g_blocks += first && *line != nullptr;
    return length;
}
WRAPPER(ssize_t, __getdelim, (char **line, size_t *size, int end, FILE *stream)) {
    return FAILS(__getdelim) != 0 ? -1 : CountedLine(line, size, end, stream);
}
WRAPPER(ssize_t, getline, (char **line, size_t *size, FILE *stream)) {
    return FAILS(getline) != 0 ? -1 : CountedLine(line, size, '\n', stream);
}

WRAPPER(size_t, fread, (void *block, size_t size, size_t count, FILE *stream)) {
    const int error = FAILS(fread);
    return error == 0 || error == kShort ? fread(block, size, error == 0 ? count : 1, stream) : 0;
}
WRAPPER(size_t, fwrite, (const void *block, size_t size, size_t count, FILE *stream)) {
    const int error = FAILS(fwrite);
    if (error != 0 && error != kShort) {
        return 0;
    }
    const size_t done = fwrite(block, size, error == 0 ? count : 1, stream);
    if (error == kShort) {
        errno = ENOSPC;  // a part is written only when the rest fails
    }
    return done;
}
WRAPPER(int, printf, (const char *format, ...)) {
    if (FAILS(printf) != 0) {
        return -1;
    }
    va_list args;
    va_start(args, format);
    const int length = vprintf(format, args);
    va_end(args);
    return length;
}
WRAPPER(int, fprintf, (FILE * stream, const char *format, ...)) {
    if (FAILS(fprintf) != 0) {
        return -1;
    }
    va_list args;
    va_start(args, format);
    const int length = vfprintf(stream, format, args);
    va_end(args);
    return length;
}

static pid_t CountedChild(pid_t child) {
    if (child > 0) {
        g_children.insert(child);
    }
    return child;
}
WRAPPER(pid_t, fork, (void)) {
    return FAILS(fork) != 0 ? -1 : CountedChild(fork());
}
WRAPPER(int, clone, (int (*run)(void *), void *stack, int flags, void *arg)) {
    return FAILS(clone) != 0 ? -1 : CountedChild(clone(run, stack, flags, arg));
}

// ECHILD comes when the child was collected elsewhere.
WRAPPER(pid_t, waitpid, (pid_t pid, int *status, int options)) {
    const int error = FAILS(waitpid);
    if (error == 0) {
        return waitpid(pid, status, options);
    }
    if (error == ECHILD) {
        while (waitpid(pid, nullptr, options) == -1 && errno == EINTR) {
        }
    }
    errno = error;
    return -1;
}
WRAPPER(int, waitid, (idtype_t type, id_t id, siginfo_t *info, int options)) {
    const int error = FAILS(waitid);
    if (error == 0) {
        return waitid(type, id, info, options);
    }
    if (error == ECHILD) {
        siginfo_t ignored;
        while (waitid(type, id, &ignored, WEXITED) == -1 && errno == EINTR) {
        }
    }
    errno = error;
    return -1;
}

WRAPPER(int, getaddrinfo,
        (const char *name, const char *service, const struct addrinfo *hints,
         struct addrinfo **found)) {
    const int error = FAILS(getaddrinfo);
    const int result = error != 0 ? error : getaddrinfo(name, service, hints, found);
    g_blocks += result == 0;
    return result;
}
WRAPPER(void, freeaddrinfo, (struct addrinfo * found)) {
    --g_blocks;
    freeaddrinfo(found);
}

WRAPPER(int, ppoll,
        (struct pollfd * fds, nfds_t count, const struct timespec *t, const sigset_t *mask)) {
    const int error = FAILS(ppoll);
    if (error == kEnd && t != nullptr) {
        g_run->skippedNs += NsOf(*t);
        return 0;
    }
    if (error > 0) {
        return -1;
    }
    if (t == nullptr || NsOf(*t) <= kLongestWaitNs) {
        return ppoll(fds, count, t, mask);
    }
    const struct timespec cut = {0, kLongestWaitNs};
    const int ready = ppoll(fds, count, &cut, mask);
    if (ready == 0) {
        g_run->skippedNs += NsOf(*t) - kLongestWaitNs;
    }
    return ready;
}
// Sleeps are skipped. One that is interrupted has slept half.
WRAPPER(int, nanosleep, (const struct timespec *t, struct timespec *left)) {
    const int64_t ns = NsOf(*t);
    if (FAILS(nanosleep) == 0) {
        g_run->skippedNs += ns;
        return 0;
    }
    g_run->skippedNs += ns / 2;
    if (left != nullptr) {
        *left = {(ns - ns / 2) / 1'000'000'000, (ns - ns / 2) % 1'000'000'000};
    }
    return -1;
}
WRAPPER(int, clock_gettime, (clockid_t clock, struct timespec *now)) {
    const int result = clock_gettime(clock, now);
    const int64_t ns = NsOf(*now) + g_run->skippedNs;
    *now = {ns / 1'000'000'000, ns % 1'000'000'000};
    return result;
}
WRAPPER(int, gettimeofday, (struct timeval * now, void *zone)) {
    const int result = gettimeofday(now, zone);
    const int64_t us = int64_t{now->tv_sec} * 1'000'000 + now->tv_usec + g_run->skippedNs / 1'000;
    *now = {us / 1'000'000, us % 1'000'000};
    return result;
}
WRAPPER(time_t, time, (time_t * now)) {
    const time_t value = time(nullptr) + g_run->skippedNs / 1'000'000'000;
    if (now != nullptr) {
        *now = value;
    }
    return value;
}
