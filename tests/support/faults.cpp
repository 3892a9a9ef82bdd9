// The wrapped functions of the C library. One line a function: its name follows the bracket,
// where the build takes it from. The functions are the C library's own; their wrapped
// forms have the parameters that callers of this project pass.

#include "support/faults.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
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

#include "support/capture.h"

namespace {

struct Plan {
    bool armed = false;
    const char *function = nullptr;
    int nth = 0;
    int left = 0;
    int error = 0;
    const char *tripped = nullptr;
};
Plan g_plan;
long g_blocks = 0;

bool Trips(const char *pName) {
    if (!g_plan.armed || (g_plan.function != nullptr && strcmp(g_plan.function, pName) != 0)) {
        return false;
    }
    if (g_plan.left-- > 0) {
        return false;
    }
    g_plan.armed = false;
    g_plan.tripped = pName;
    errno = g_plan.error;
    return true;
}

}  // namespace

// A call that fails without having done anything.
#define FAULT_CALL(name, type, failure, params, args)         \
    extern "C" type __real_##name params;                     \
    extern "C" type __wrap_##name params;                     \
    type __wrap_##name params {                               \
        return Trips(#name) ? (failure) : __real_##name args; \
    }

// A call that releases what it was given even when it fails.
#define FAULT_RELEASE(name, type, failure, params, args) \
    extern "C" type __real_##name params;                \
    extern "C" type __wrap_##name params;                \
    type __wrap_##name params {                          \
        if (Trips(#name)) {                              \
            const int error = errno;                     \
            __real_##name args;                          \
            errno = error;                               \
            return failure;                              \
        }                                                \
        return __real_##name args;                       \
    }

// A call that hands out a heap block.
#define FAULT_ALLOC(name, params, args)    \
    extern "C" void *__real_##name params; \
    extern "C" void *__wrap_##name params; \
    void *__wrap_##name params {           \
        if (Trips(#name)) {                \
            return nullptr;                \
        }                                  \
        void *block = __real_##name args;  \
        g_blocks += block != nullptr;      \
        return block;                      \
    }

// Memory.
FAULT_ALLOC(malloc, (size_t size), (size))
FAULT_ALLOC(calloc, (size_t count, size_t size), (count, size))

// Written out: what they do to the count of blocks differs. FAULT_OWN only names them for the
// build.
#define FAULT_OWN(name) static_assert(#name[0] != 0)
FAULT_OWN(realloc);
FAULT_OWN(free);
FAULT_OWN(strdup);
FAULT_OWN(strndup);
FAULT_OWN(getline);
FAULT_OWN(__getdelim);  // what getline becomes in an optimised build
extern "C" {
void *__real_realloc(void *block, size_t size);
void *__wrap_realloc(void *block, size_t size);
void __real_free(void *block);
void __wrap_free(void *block);
char *__real_strdup(const char *text);
char *__wrap_strdup(const char *text);
char *__real_strndup(const char *text, size_t size);
char *__wrap_strndup(const char *text, size_t size);
ssize_t __wrap_getline(char **line, size_t *size, FILE *stream);
ssize_t __real___getdelim(char **line, size_t *size, int end, FILE *stream);
ssize_t __wrap___getdelim(char **line, size_t *size, int end, FILE *stream);
}
void *__wrap_realloc(void *block, size_t size) {
    if (Trips("realloc")) {
        return nullptr;
    }
    void *grown = __real_realloc(block, size);
    g_blocks += block == nullptr && grown != nullptr;
    return grown;
}
void __wrap_free(void *block) {
    g_blocks -= block != nullptr;
    __real_free(block);
}
char *__wrap_strdup(const char *text) {
    char *copy = Trips("strdup") ? nullptr : __real_strdup(text);
    g_blocks += copy != nullptr;
    return copy;
}
char *__wrap_strndup(const char *text, size_t size) {
    char *copy = Trips("strndup") ? nullptr : __real_strndup(text, size);
    g_blocks += copy != nullptr;
    return copy;
}
ssize_t __wrap___getdelim(char **line, size_t *size, int end, FILE *stream) {
    if (Trips("getline")) {
        return -1;
    }
    const bool first = *line == nullptr;
    const ssize_t length = __real___getdelim(line, size, end, stream);
    g_blocks += first && *line != nullptr;
    return length;
}
ssize_t __wrap_getline(char **line, size_t *size, FILE *stream) {
    return __wrap___getdelim(line, size, '\n', stream);
}

FAULT_CALL(mmap, void *, MAP_FAILED,
           (void *at, size_t size, int access, int flags, int fd, off_t offset),
           (at, size, access, flags, fd, offset))

// Descriptors.
FAULT_CALL(open, int, -1, (const char *path, int flags, mode_t mode), (path, flags, mode))
FAULT_CALL(openat, int, -1, (int dir, const char *path, int flags, mode_t mode),
           (dir, path, flags, mode))
FAULT_CALL(read, ssize_t, -1, (int fd, void *buf, size_t size), (fd, buf, size))
FAULT_CALL(write, ssize_t, -1, (int fd, const void *buf, size_t size), (fd, buf, size))
FAULT_CALL(pread, ssize_t, -1, (int fd, void *buf, size_t size, off_t at), (fd, buf, size, at))
FAULT_CALL(lseek, off_t, -1, (int fd, off_t offset, int whence), (fd, offset, whence))
FAULT_CALL(fcntl, int, -1, (int fd, int command, void *arg), (fd, command, arg))
FAULT_CALL(ioctl, int, -1, (int fd, unsigned long request, void *arg), (fd, request, arg))
FAULT_CALL(dup, int, -1, (int fd), (fd))
FAULT_CALL(dup2, int, -1, (int from, int to), (from, to))
FAULT_CALL(dup3, int, -1, (int from, int to, int flags), (from, to, flags))
FAULT_CALL(pipe2, int, -1, (int *fds, int flags), (fds, flags))
FAULT_CALL(fsync, int, -1, (int fd), (fd))
FAULT_CALL(fstat, int, -1, (int fd, struct stat *st), (fd, st))
FAULT_CALL(ftruncate, int, -1, (int fd, off_t size), (fd, size))
FAULT_CALL(copy_file_range, ssize_t, -1,
           (int in, off_t *inAt, int out, off_t *outAt, size_t size, unsigned flags),
           (in, inAt, out, outAt, size, flags))
FAULT_CALL(posix_fadvise, int, EIO, (int fd, off_t at, off_t size, int advice),
           (fd, at, size, advice))
FAULT_CALL(ppoll, int, -1,
           (struct pollfd * fds, nfds_t n, const struct timespec *t, const sigset_t *s),
           (fds, n, t, s))
FAULT_RELEASE(close, int, -1, (int fd), (fd))

// Streams and directories.
FAULT_CALL(fopen, FILE *, nullptr, (const char *path, const char *mode), (path, mode))
FAULT_CALL(fdopen, FILE *, nullptr, (int fd, const char *mode), (fd, mode))
FAULT_CALL(fgets, char *, nullptr, (char *buf, int size, FILE *stream), (buf, size, stream))
FAULT_CALL(fread, size_t, 0, (void *buf, size_t size, size_t n, FILE *stream),
           (buf, size, n, stream))
FAULT_CALL(fwrite, size_t, 0, (const void *buf, size_t size, size_t n, FILE *stream),
           (buf, size, n, stream))
FAULT_CALL(fputs, int, EOF, (const char *text, FILE *stream), (text, stream))
FAULT_CALL(fflush, int, EOF, (FILE * stream), (stream))
FAULT_CALL(popen, FILE *, nullptr, (const char *command, const char *mode), (command, mode))
FAULT_CALL(fseeko, int, -1, (FILE * stream, off_t offset, int whence), (stream, offset, whence))
FAULT_CALL(opendir, DIR *, nullptr, (const char *path), (path))
FAULT_CALL(fdopendir, DIR *, nullptr, (int fd), (fd))
FAULT_CALL(readdir, struct dirent *, nullptr, (DIR * dir), (dir))
FAULT_RELEASE(fclose, int, EOF, (FILE * stream), (stream))
FAULT_RELEASE(pclose, int, -1, (FILE * stream), (stream))
FAULT_RELEASE(closedir, int, -1, (DIR * dir), (dir))

// Names.
FAULT_CALL(stat, int, -1, (const char *path, struct stat *st), (path, st))
FAULT_CALL(fstatat, int, -1, (int dir, const char *path, struct stat *st, int flags),
           (dir, path, st, flags))
FAULT_CALL(lstat, int, -1, (const char *path, struct stat *st), (path, st))
FAULT_CALL(statfs, int, -1, (const char *path, struct statfs *st), (path, st))
FAULT_CALL(access, int, -1, (const char *path, int mode), (path, mode))
FAULT_CALL(mkdir, int, -1, (const char *path, mode_t mode), (path, mode))
FAULT_CALL(rmdir, int, -1, (const char *path), (path))
FAULT_CALL(unlink, int, -1, (const char *path), (path))
FAULT_CALL(unlinkat, int, -1, (int dir, const char *path, int flags), (dir, path, flags))
FAULT_CALL(rename, int, -1, (const char *from, const char *to), (from, to))
FAULT_CALL(symlink, int, -1, (const char *target, const char *link), (target, link))
FAULT_CALL(readlink, ssize_t, -1, (const char *path, char *buf, size_t size), (path, buf, size))
FAULT_CALL(truncate, int, -1, (const char *path, off_t size), (path, size))
FAULT_CALL(chmod, int, -1, (const char *path, mode_t mode), (path, mode))
FAULT_CALL(mknod, int, -1, (const char *path, mode_t mode, dev_t dev), (path, mode, dev))
FAULT_CALL(mkstemp, int, -1, (char *name), (name))
FAULT_CALL(mkostemp, int, -1, (char *name, int flags), (name, flags))
FAULT_CALL(mkdtemp, char *, nullptr, (char *name), (name))
FAULT_CALL(mount, int, -1,
           (const char *src, const char *dir, const char *type, unsigned long flags,
            const void *data),
           (src, dir, type, flags, data))
FAULT_CALL(umount, int, -1, (const char *dir), (dir))
FAULT_CALL(umount2, int, -1, (const char *dir, int flags), (dir, flags))

// Processes, signals and threads.
FAULT_CALL(fork, pid_t, -1, (void), ())
FAULT_CALL(clone, int, -1, (int (*run)(void *), void *stack, int flags, void *arg),
           (run, stack, flags, arg))
FAULT_CALL(system, int, -1, (const char *command), (command))
FAULT_CALL(waitpid, pid_t, -1, (pid_t pid, int *status, int options), (pid, status, options))
FAULT_CALL(waitid, int, -1, (idtype_t type, id_t id, siginfo_t *info, int options),
           (type, id, info, options))
FAULT_CALL(execv, int, -1, (const char *path, char *const *args), (path, args))
FAULT_CALL(kill, int, -1, (pid_t pid, int sig), (pid, sig))
FAULT_CALL(sigaction, int, -1, (int sig, const struct sigaction *now, struct sigaction *old),
           (sig, now, old))
FAULT_CALL(sigprocmask, int, -1, (int how, const sigset_t *now, sigset_t *old), (how, now, old))
FAULT_CALL(setenv, int, -1, (const char *name, const char *value, int over), (name, value, over))
FAULT_CALL(sethostname, int, -1, (const char *name, size_t size), (name, size))
FAULT_CALL(gethostname, int, -1, (char *name, size_t size), (name, size))
FAULT_CALL(getgroups, int, -1, (int size, gid_t *list), (size, list))
FAULT_CALL(pthread_create, int, EAGAIN,
           (pthread_t * thread, const pthread_attr_t *attr, void *(*start)(void *), void *arg),
           (thread, attr, start, arg))

// A call by its number; the ones made here have up to four arguments.
FAULT_CALL(syscall, long, -1, (long number, long a, long b, long c, long d), (number, a, b, c, d))

// Sockets.
FAULT_CALL(socket, int, -1, (int domain, int type, int protocol), (domain, type, protocol))
FAULT_CALL(bind, int, -1, (int fd, const struct sockaddr *addr, socklen_t size), (fd, addr, size))
FAULT_CALL(listen, int, -1, (int fd, int backlog), (fd, backlog))
FAULT_CALL(accept, int, -1, (int fd, struct sockaddr *addr, socklen_t *size), (fd, addr, size))
FAULT_CALL(accept4, int, -1, (int fd, struct sockaddr *addr, socklen_t *size, int flags),
           (fd, addr, size, flags))
FAULT_CALL(connect, int, -1, (int fd, const struct sockaddr *addr, socklen_t size),
           (fd, addr, size))
FAULT_CALL(send, ssize_t, -1, (int fd, const void *buf, size_t size, int flags),
           (fd, buf, size, flags))
FAULT_CALL(sendto, ssize_t, -1,
           (int fd, const void *buf, size_t size, int flags, const struct sockaddr *addr,
            socklen_t addrSize),
           (fd, buf, size, flags, addr, addrSize))
FAULT_CALL(recv, ssize_t, -1, (int fd, void *buf, size_t size, int flags), (fd, buf, size, flags))
FAULT_CALL(recvfrom, ssize_t, -1,
           (int fd, void *buf, size_t size, int flags, struct sockaddr *addr, socklen_t *addrSize),
           (fd, buf, size, flags, addr, addrSize))
FAULT_CALL(socketpair, int, -1, (int domain, int type, int protocol, int *ends),
           (domain, type, protocol, ends))
FAULT_CALL(shutdown, int, -1, (int fd, int how), (fd, how))
FAULT_CALL(getsockopt, int, -1, (int fd, int level, int name, void *value, socklen_t *size),
           (fd, level, name, value, size))
FAULT_CALL(setsockopt, int, -1, (int fd, int level, int name, const void *value, socklen_t size),
           (fd, level, name, value, size))

FAULT_CALL(getaddrinfo, int, EAI_SYSTEM,
           (const char *name, const char *service, const struct addrinfo *hints,
            struct addrinfo **found),
           (name, service, hints, found))

// Terminals and time.
FAULT_CALL(tcgetattr, int, -1, (int fd, struct termios *setting), (fd, setting))
FAULT_CALL(tcsetattr, int, -1, (int fd, int when, const struct termios *setting),
           (fd, when, setting))
FAULT_CALL(tcflush, int, -1, (int fd, int queue), (fd, queue))
FAULT_CALL(nanosleep, int, -1, (const struct timespec *t, struct timespec *left), (t, left))
FAULT_CALL(gettimeofday, int, -1, (struct timeval * t, void *zone), (t, zone))
FAULT_CALL(gmtime_r, struct tm *, nullptr, (const time_t *t, struct tm *out), (t, out))

namespace talvek::test {

Fault::Fault(const char *function, int nth, int error) {
    g_plan = {true, function, nth, nth, error, nullptr};
}

Fault::~Fault() {
    g_plan.armed = false;
}

bool Fault::Tripped() {
    return g_plan.tripped != nullptr;
}

std::string Fault::Which() {
    return g_plan.tripped != nullptr ? g_plan.tripped : "";
}

int Fault::Passed() {
    return g_plan.nth - g_plan.left;
}

long HeldBlocks() {
    return g_blocks;
}

int HeldFds() {
    int count = 0;
    DIR *dir = __real_opendir("/proc/self/fd");
    while (__real_readdir(dir) != nullptr) {
        ++count;
    }
    __real_closedir(dir);
    return count - 3;  // ".", ".." and the descriptor of the listing
}

std::string CaptureUnderFault(const std::function<void()> &body) {
    Plan plan = g_plan;
    g_plan.armed = false;
    const std::string output = Capture([&] {
        g_plan = plan;
        body();
        plan = g_plan;
        g_plan.armed = false;
    });
    g_plan = plan;
    return output;
}

namespace {

constexpr int kPassed = 0;
constexpr int kRanThrough = 100;

int RunWithFault(int nth, int error, const std::function<void()> &body) {
    alarm(60);
    const int fds = HeldFds();
    const long blocks = g_blocks;
    std::string which;
    {
        const Fault fault{nullptr, nth, error};
        body();
        which = Fault::Which();
    }
    EXPECT_EQ(fds, HeldFds()) << "descriptors after a failing " << which;
    EXPECT_EQ(blocks, g_blocks) << "heap blocks after a failing " << which;
    if (::testing::Test::HasFailure()) {
        printf("the run in which call %d (%s) fails did not pass\n", nth, which.c_str());
        return 1;
    }
    return which.empty() ? kRanThrough : kPassed;
}

}  // namespace

int EveryCallFails(int error, const std::function<void()> &body) {
    for (int nth = 0; nth < 10000; ++nth) {
        __real_fflush(nullptr);
        const pid_t child = __real_fork();
        if (child == 0) {
            const int code = RunWithFault(nth, error, body);
            __real_fflush(nullptr);
            _exit(code);
        }
        int status = -1;
        __real_waitpid(child, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == kRanThrough) {
            return nth;
        }
        if (!WIFEXITED(status) || WEXITSTATUS(status) != kPassed) {
            ADD_FAILURE() << "with call " << nth << " failing the run ended with wait status "
                          << status;
            return nth;
        }
    }
    ADD_FAILURE() << "no end of calls";
    return -1;
}

}  // namespace talvek::test
