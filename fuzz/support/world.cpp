#include "fuzz/support/world.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "fuzz/support/oracle.h"
#include "fuzz/support/wrap.h"

namespace talvek::fuzz {
namespace {

World *g_world = nullptr;

// Files of worlds that have ended, for the next ones: making a file takes longer than writing it.
std::vector<int> g_idle;

// A directory stream that is read.
struct Listing {
    DIR *stream = nullptr;
    const World::Directory *directory = nullptr;
    size_t next = 0;
    struct dirent entry = {};
};
Listing g_listing;

int FailWith(int error) {
    errno = error;
    return -1;
}

void Fill(int fd, Bytes content) {
    REQUIRE(pwrite(fd, content.data(), content.size(), 0) == ssize_t(content.size()));
}

FILE *Nothing() {
    static FILE *const nothing = fopen("/dev/null", "w");
    return nothing;
}

// A stream that reads a file without a descriptor of its own, which saves most of its system calls.
struct Reading {
    int fd;
    off64_t at;
};

ssize_t ReadOn(void *pReading, char *pBuffer, size_t size) {
    auto *reading = static_cast<Reading *>(pReading);
    const ssize_t count = pread64(reading->fd, pBuffer, size, reading->at);
    reading->at += std::max<ssize_t>(count, 0);
    return count;
}

int EndReading(void *pReading) {
    delete static_cast<Reading *>(pReading);
    return 0;
}

FILE *StreamThatReads(int fd) {
    return fopencookie(new Reading{fd, 0}, "r",
                       {.read = ReadOn, .write = nullptr, .seek = nullptr, .close = EndReading});
}

// A calm default for what would change the machine.
int Pretend() {
    return 0;
}

}  // namespace

int OpenMemory(Bytes content) {
    const int fd = memfd_create("input", MFD_CLOEXEC);
    REQUIRE(fd >= 0);
    Fill(fd, content);
    return fd;
}

World::World() : stderr_(stderr) {
    FILE *nothing = Nothing();
    REQUIRE(g_world == nullptr && nothing != nullptr);
    g_world = this;
    stderr = nothing;
}

World::~World() {
    g_world = nullptr;
    stderr = stderr_;
    for (const int fd : fds_) {
        REQUIRE(ftruncate(fd, 0) == 0);
        g_idle.push_back(fd);
    }
}

void World::AddFiles(std::initializer_list<const char *> paths, Bytes content) {
    files_.reserve(files_.size() + paths.size());
    if (g_idle.empty()) {
        fds_.push_back(OpenMemory(content));
    } else {
        fds_.push_back(g_idle.back());
        g_idle.pop_back();
        Fill(fds_.back(), content);
    }
    for (const char *pPath : paths) {
        files_.push_back({pPath, fds_.back()});
    }
}

void World::AddDirectory(const char *pPath, std::vector<std::string> names) {
    directories_.push_back({pPath, std::move(names)});
}

std::vector<uint8_t> World::Content(const char *pPath) const {
    const File *pFile = Find(pPath);
    REQUIRE(pFile != nullptr);
    std::vector<uint8_t> content(static_cast<size_t>(lseek(pFile->fd, 0, SEEK_END)));
    REQUIRE(pread(pFile->fd, content.data(), content.size(), 0) == ssize_t(content.size()));
    return content;
}

const World::File *World::Find(const char *pPath) const {
    for (const File &file : files_) {
        if (file.path == pPath) {
            return &file;
        }
    }
    return nullptr;
}

const World::Directory *World::FindDirectory(const char *pPath) const {
    for (const Directory &directory : directories_) {
        if (directory.path == pPath) {
            return &directory;
        }
    }
    return nullptr;
}

}  // namespace talvek::fuzz

using talvek::fuzz::FailWith;
using talvek::fuzz::g_listing;
using talvek::fuzz::g_world;
using talvek::fuzz::Pretend;
using talvek::fuzz::StreamThatReads;
using talvek::fuzz::World;

CAUGHT(int, CALL_OPEN, (const char *pPath, int flags, ...)) {
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list args;
        va_start(args, flags);
        mode = static_cast<mode_t>(va_arg(args, unsigned));
        va_end(args);
    }
    if (g_world == nullptr) {
        return REAL(CALL_OPEN)(pPath, flags, mode);
    }
    const World::File *pFile = g_world->Find(pPath);
    if (pFile == nullptr) {
        return FailWith(ENOENT);
    }
    // A description of its own, with an offset of its own.
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", pFile->fd);
    return REAL(CALL_OPEN)(path, flags & ~(O_CREAT | O_EXCL | O_NOATIME | O_NOFOLLOW), mode);
}

CAUGHT(FILE *, CALL_FOPEN, (const char *pPath, const char *pMode)) {
    if (g_world == nullptr) {
        return REAL(CALL_FOPEN)(pPath, pMode);
    }
    const bool both = strchr(pMode, '+') != nullptr;
    const bool writes = pMode[0] == 'w';
    if (const World::File *pFile = g_world->Find(pPath);
        pFile != nullptr && pMode[0] == 'r' && !both) {
        return StreamThatReads(pFile->fd);
    }
    const int access = both ? O_RDWR : (writes ? O_WRONLY : O_RDONLY);
    const int fd = WRAP(CALL_OPEN)(pPath, access | O_CLOEXEC | (writes ? O_TRUNC : 0));
    return fd >= 0 ? fdopen(fd, pMode) : nullptr;
}

CAUGHT(int, CALL_STAT, (const char *pPath, struct stat *pStat)) {
    if (g_world == nullptr) {
        return REAL(CALL_STAT)(pPath, pStat);
    }
    if (const World::File *pFile = g_world->Find(pPath); pFile != nullptr) {
        return fstat(pFile->fd, pStat);
    }
    if (g_world->FindDirectory(pPath) == nullptr) {
        return FailWith(ENOENT);
    }
    *pStat = {};
    pStat->st_mode = S_IFDIR | 0755;
    return 0;
}

CAUGHT(int, access, (const char *pPath, int mode)) {
    if (g_world == nullptr) {
        return REAL(access)(pPath, mode);
    }
    return g_world->Find(pPath) != nullptr ? 0 : FailWith(ENOENT);
}

// The target of a link is the content of a file of that name.
CAUGHT(ssize_t, readlink, (const char *pPath, char *pTarget, size_t size)) {
    if (g_world == nullptr) {
        return REAL(readlink)(pPath, pTarget, size);
    }
    const World::File *pFile = g_world->Find(pPath);
    return pFile != nullptr ? pread(pFile->fd, pTarget, size, 0) : FailWith(ENOENT);
}

CAUGHT(int, CALL_STATFS, (const char *pPath, struct statfs *pSpace)) {
    if (g_world == nullptr) {
        return REAL(CALL_STATFS)(pPath, pSpace);
    }
    *pSpace = g_world->space;
    return 0;
}

CAUGHT(int, CALL_MKOSTEMP, (char *pTemplate, int flags)) {
    if (g_world == nullptr) {
        return REAL(CALL_MKOSTEMP)(pTemplate, flags);
    }
    if (g_world->Find(pTemplate) == nullptr) {
        g_world->AddFile(g_world->temporary.emplace_back(pTemplate).c_str(), {});
    }
    return WRAP(CALL_OPEN)(pTemplate, O_RDWR | O_CLOEXEC);
}

CAUGHT(DIR *, opendir, (const char *pPath)) {
    if (g_world == nullptr) {
        return REAL(opendir)(pPath);
    }
    const World::Directory *pDirectory = g_world->FindDirectory(pPath);
    if (pDirectory == nullptr) {
        errno = ENOENT;
        return nullptr;
    }
    // Any real stream serves as the handle.
    g_listing = {REAL(opendir)("/"), pDirectory, 0, {}};
    return g_listing.stream;
}

CAUGHT(struct dirent *, CALL_READDIR, (DIR * stream)) {
    if (g_world == nullptr || stream != g_listing.stream) {
        return REAL(CALL_READDIR)(stream);
    }
    if (g_listing.next == g_listing.directory->names.size()) {
        return nullptr;
    }
    snprintf(g_listing.entry.d_name, sizeof g_listing.entry.d_name, "%s",
             g_listing.directory->names[g_listing.next++].c_str());
    return &g_listing.entry;
}

// The arguments are lists in brackets. NOLINTBEGIN(bugprone-macro-parentheses)
#define HARMLESS(name, parameters, arguments)                         \
    CAUGHT(int, name, parameters) {                                   \
        return g_world == nullptr ? REAL(name) arguments : Pretend(); \
    }
// NOLINTEND(bugprone-macro-parentheses)

HARMLESS(mkdir, (const char *pPath, mode_t mode), (pPath, mode))
HARMLESS(mknod, (const char *pPath, mode_t mode, dev_t dev), (pPath, mode, dev))
HARMLESS(mount,
         (const char *pSource, const char *pTarget, const char *pType, unsigned long flags,
          const void *pData),
         (pSource, pTarget, pType, flags, pData))
HARMLESS(umount, (const char *pTarget), (pTarget))
HARMLESS(umount2, (const char *pTarget, int flags), (pTarget, flags))
HARMLESS(unlink, (const char *pPath), (pPath))
HARMLESS(rmdir, (const char *pPath), (pPath))
HARMLESS(symlink, (const char *pTarget, const char *pLink), (pTarget, pLink))
HARMLESS(sethostname, (const char *pName, size_t size), (pName, size))
HARMLESS(kill, (pid_t pid, int signal), (pid, signal))

CAUGHT(int, CALL_TRUNCATE, (const char *pPath, off_t size)) {
    if (g_world == nullptr) {
        return REAL(CALL_TRUNCATE)(pPath, size);
    }
    const World::File *pFile = g_world->Find(pPath);
    return pFile != nullptr ? ftruncate(pFile->fd, size) : FailWith(ENOENT);
}

CAUGHT(char *, mkdtemp, (char *pTemplate)) {
    return g_world == nullptr ? REAL(mkdtemp)(pTemplate) : pTemplate;
}

CAUGHT(int, system, (const char *pCommand)) {
    if (g_world == nullptr) {
        return REAL(system)(pCommand);
    }
    g_world->commands.emplace_back(pCommand);
    return g_world->commandStatus;
}

CAUGHT(int, setenv, (const char *pName, const char *pValue, int replace)) {
    if (g_world == nullptr) {
        return REAL(setenv)(pName, pValue, replace);
    }
    g_world->variables.push_back(std::string{pName} + "=" + pValue);
    return pName[0] == '\0' || strchr(pName, '=') != nullptr ? FailWith(EINVAL) : 0;
}

CAUGHT(FILE *, popen, (const char *pCommand, const char *pMode)) {
    if (g_world == nullptr) {
        return REAL(popen)(pCommand, pMode);
    }
    errno = EAGAIN;
    return nullptr;
}

// The product starts processes with clone; the arguments after the fourth are those of flags that
// it does not use.
CAUGHT(int, clone, (int (*function)(void *), void *pStack, int flags, void *pArg, ...)) {
    if (g_world == nullptr) {
        return REAL(clone)(function, pStack, flags, pArg);
    }
    return FailWith(EAGAIN);
}
