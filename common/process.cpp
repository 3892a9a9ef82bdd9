// Processes: pid files, stopping by program name, inherited descriptors, reading a command's
// output.

#include "common/process.h"

#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "base/cancel_guard.h"
#include "base/characters.h"
#include "base/file_limit_guard.h"
#include "base/path.h"
#include "base/unique_dir.h"
#include "base/unique_stream.h"
#include "common/internal/module_log.h"
#include "common/internal/proc_entry.h"

namespace {

// Returns whether the signal was sent.
bool Terminate(int pid, const char *pFirst, const char *pSecond) {
    if (pid <= 0) {
        LOG_AS("COM_KillDhcpProc", "Invalid pid[%d]\n", pid);
        return false;
    }
    if (kill(pid, SIGTERM) != 0) {
        LOG_ERRNO_PLAIN("kill [%s/%s][%d] failed: %s\n", pFirst, pSecond, pid);
        return false;
    }
    return true;
}

// Like fgets, but continues a read that a signal interrupts, so that no part of a line is lost.
// NULL at the end of the output. Tested by Interruption.KeepsThePartOfALineThatWasRead.
const char *NextLine(char *pLine, size_t size, FILE *pStream) {
    size_t length = 0;
    while (length + 1 < size && (length == 0 || pLine[length - 1] != '\n')) {
        const int byte = getc(pStream);
        if (byte != EOF) {
            pLine[length++] = static_cast<char>(byte);
        } else if (feof(pStream) || errno != EINTR) {
            break;
        } else {
            clearerr(pStream);
        }
    }
    pLine[length] = '\0';
    return length > 0 ? pLine : nullptr;
}

}  // namespace

int COM_SavePid(const char *pFileName) {
    const talvek::CancelGuard guard;
    if (pFileName == nullptr) {
        return -1;
    }
    const talvek::FileLimitGuard limit;
    const talvek::UniqueFile stream{talvek::OpenStream(pFileName, "w")};
    if (!stream) {
        LOG_ERRNO("open(%s) error : %s\n", pFileName);
        return -1;
    }
    if (fprintf(stream.get(), "%d", getpid()) < 0 || fflush(stream.get()) != 0) {
        LOG_ERRNO("write(%s) error : %s\n", pFileName);
    }
    // Callers ignore the result, and it is the same on success.
    // Tested by SavePid.WritesThePidAndReturnsMinusOne.
    return -1;
}

int COM_KillDhcpProc(const char *pFirst, const char *pSecond) {
    const talvek::CancelGuard guard;
    const talvek::UniqueDir proc{pFirst != nullptr && pSecond != nullptr ? opendir("/proc")
                                                                         : nullptr};
    if (!proc) {
        LOG("NULL pointer pretection!\n");
        return -1;
    }
    int result = -1;
    while (const struct dirent *entry = readdir(proc.get())) {
        char line[128 + 1];
        if (!talvek::IsDigit(entry->d_name[0]) ||
            !talvek::ReadCmdline(entry->d_name, line, sizeof line) ||
            strstr(line, pFirst) == nullptr || strstr(line, pSecond) == nullptr) {
            continue;
        }
        if (Terminate(talvek::ParseEntryNumber(entry->d_name), pFirst, pSecond)) {
            result = 0;
        }
    }
    return result;
}

int COM_CloseFdExceptSTD(int pid) {
    const talvek::CancelGuard guard;
    char path[40];
    snprintf(path, sizeof path, "/proc/%d/fd", pid);
    talvek::UniqueDir dir{opendir(path)};
    if (!dir) {
        return LOG_ERRNO("opendir(%s) error : %s\n", path);
    }
    const int own = dirfd(dir.get());
    bool ownListed = false;
    while (const struct dirent *entry = readdir(dir.get())) {
        const int fd = talvek::ParseEntryNumber(entry->d_name);
        if (fd == own) {
            ownListed = true;
        } else if (fd > STDERR_FILENO) {
            close(fd);
        }
    }
    // The listing's own descriptor is closed last, since a long listing takes several reads.
    // closedir then fails, and callers rely on that result.
    // Tested by CloseFdExceptSTD.ClosesItsOwnListingToo.
    if (ownListed) {
        close(own);
    }
    return dir.Close();
}

int COM_PopenRead(const char *pCmd, void * /*pIgnored*/, void *pUser, tComLineFn pCallback) {
    const talvek::CancelGuard guard;
    signal(SIGCHLD, SIG_DFL);
    // Flush first, so that our output precedes the command's.
    fflush(stdout);
    errno = EFAULT;
    talvek::UniquePipe pipe{pCmd != nullptr ? popen(pCmd, "re") : nullptr};
    if (!pipe) {
        LOG_ERRNO("popen(%s) error : %s\n", talvek::Shown(pCmd));
        return -1;
    }
    char line[COM_COMMAND_LINE_SIZE];
    while (NextLine(line, sizeof line, pipe.get()) != nullptr) {
        if (pCallback != nullptr) {
            pCallback(line, pUser);
        }
    }
    const int status = pipe.Close();
    if (status == -1) {
        LOG_ERRNO("pclose() error : %s\n");
    } else if (status != 0) {
        LOG("pclose() return %d\n", status);
    }
    if (pCallback != nullptr) {
        pCallback(nullptr, pUser);
    }
    return status;
}
