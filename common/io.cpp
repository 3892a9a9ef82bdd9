// Small operations on processes, sockets, escaped texts and ring buffers.

#include "common/io.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>

#include "base/cancel_guard.h"
#include "base/characters.h"
#include "base/unique_dir.h"
#include "common/internal/module_log.h"
#include "common/internal/proc_entry.h"

namespace {

// Calls `copy` for each piece of the ring that a copy of `size` bytes consists of, in order, with
// its offset, the number of bytes copied before it, and its size.
template <typename Copy>
void ForEachRingPiece(int offset, int ringSize, int size, Copy copy) {
    if (size < 1 || offset < 0 || (ringSize > 0 && offset > ringSize)) {
        return;
    }
    for (int done = 0; done < size; offset = 0) {
        const int left = size - done;
        const int count = ringSize > 0 ? std::min(ringSize - offset, left) : left;
        copy(static_cast<size_t>(offset), static_cast<size_t>(done), static_cast<size_t>(count));
        done += count;
    }
}

struct SocketOption {
    int number;
    const char *name;
};

constexpr SocketOption kTimeouts[] = {
    {SO_SNDTIMEO, "SO_SNDTIMEO"},
    {SO_RCVTIMEO, "SO_RCVTIMEO"},
};

}  // namespace

int COM_CheckProcExist(const char *pText) {
    const talvek::CancelGuard guard;
    if (pText == nullptr) {
        return -1;
    }
    const talvek::UniqueDir dir{opendir("/proc")};
    if (!dir) {
        return -1;
    }
    while (const struct dirent *entry = readdir(dir.get())) {
        if (!talvek::IsDigit(entry->d_name[0])) {
            continue;
        }
        char line[128] = "";
        talvek::ReadCmdline(entry->d_name, line, sizeof line);
        if (strstr(line, pText) != nullptr) {
            return 0;
        }
    }
    return -1;
}

int COM_DecodeHexEscape(char *pDst, const char *pSrc) {
    if (pDst == nullptr || pSrc == nullptr) {
        return -1;
    }
    char *to = pDst;
    for (const char *from = pSrc; *from != '\0';) {
        // The second digit is read only after a first one, so never beyond the NUL.
        const int high = *from == '=' ? talvek::HexValue(from[1]) : -1;
        const int low = high >= 0 ? talvek::HexValue(from[2]) : -1;
        if (low < 0) {
            *to++ = *from++;
            continue;
        }
        *to++ = static_cast<char>(high * 16 + low);
        from += 3;
    }
    return static_cast<int>(to - pDst);
}

int COM_SendAll(int sock, const void *pData, int size) {
    const talvek::CancelGuard guard;
    const char *next = static_cast<const char *>(pData);
    int left = size;
    while (left > 0) {
        const ssize_t sent = send(sock, next, static_cast<size_t>(left), MSG_NOSIGNAL);
        if (sent <= 0) {
            break;
        }
        next += sent;
        left -= static_cast<int>(sent);
    }
    return left;
}

void COM_ReadRingBuf(void *pDst, const void *pRing, int offset, int ringSize, int size) {
    if (pDst == nullptr || pRing == nullptr) {
        return;
    }
    char *dst = static_cast<char *>(pDst);
    const char *ring = static_cast<const char *>(pRing);
    ForEachRingPiece(offset, ringSize, size, [=](size_t at, size_t done, size_t count) {
        memcpy(dst + done, ring + at, count);
    });
}

void COM_WriteRingBuf(void *pRing, int offset, int ringSize, const void *pSrc, int size) {
    if (pRing == nullptr || pSrc == nullptr) {
        return;
    }
    char *ring = static_cast<char *>(pRing);
    const char *src = static_cast<const char *>(pSrc);
    ForEachRingPiece(offset, ringSize, size, [=](size_t at, size_t done, size_t count) {
        memcpy(ring + at, src + done, count);
    });
}

int COM_SleepTrace(int sec, int nsec, const char *pTag, int line) {
    const talvek::CancelGuard guard;
    const struct timespec time = {.tv_sec = sec, .tv_nsec = nsec};
    if (pTag == nullptr) {
        return nanosleep(&time, nullptr);
    }
    printf("[%s, %d] : B4 %d. %d sec Sleep\n", pTag, line, sec, nsec);
    fflush(stdout);  // the line appears when the sleep begins
    nanosleep(&time, nullptr);
    const int count = printf("[%s, %d] : After %d. %d sec Sleep\n", pTag, line, sec, nsec);
    fflush(stdout);
    return count;
}

int COM_SetSockTimeout(int sock, int seconds) {
    const struct timeval time = {.tv_sec = seconds, .tv_usec = 0};
    for (const SocketOption &timeout : kTimeouts) {
        if (setsockopt(sock, SOL_SOCKET, timeout.number, &time, sizeof time) != 0) {
            LOG_ERRNO("setsockopt(%d, %s, %d sec) failed - %s\n", sock, timeout.name, seconds);
            return -1;
        }
    }
    return 0;
}
