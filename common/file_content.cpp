// Whole files in one call: short texts, blocks of bytes, ring buffers and the identity files.

#include "common/file_content.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/path.h"
#include "base/unique_fd.h"
#include "common/internal/module_log.h"

static_assert(sizeof(tUnitInfo) == 304);
static_assert(offsetof(tUnitInfo, project) == 32 && offsetof(tUnitInfo, host_name) == 64 &&
              offsetof(tUnitInfo, note) == 240);

namespace talvek {
namespace {

constexpr mode_t kNewFileMode = 0664;
constexpr size_t kTextBlock = 255;
// A megabyte without a character to keep is no settings file: /dev/zero would be read for ever.
constexpr int kMaxIdleBlocks = 4096;
// A device that takes nothing without an error is asked this often in a row.
constexpr int kMaxIdleWrites = 1000;
constexpr int kDefaultPort = 80;
constexpr char kUnknown[] = "unknown";

// A negative size does not cut the text: printf takes a negative precision as none.
int FillUnknown(char *pBuf, int len) {
    const size_t whole = sizeof kUnknown - 1;
    const size_t count =
        len < 0 || static_cast<size_t>(len) > whole ? whole : static_cast<size_t>(len);
    memcpy(pBuf, kUnknown, count);
    pBuf[count] = '\0';
    return -1;
}

// Appends the first line of each block while there is room for more than the NUL.
int AppendFirstLines(int fd, char *pBuf, int len) {
    char *end = pBuf + strlen(pBuf);
    size_t room = static_cast<size_t>(len);
    int idle = 0;
    for (bool first = true; room > 1 && idle < kMaxIdleBlocks; first = false) {
        char block[kTextBlock + 1] = {};
        if (read(fd, block, kTextBlock) < 1) {
            return first ? FillUnknown(pBuf, len) : 0;
        }
        const size_t line = strcspn(block, "\r\n");
        const size_t count = line < room ? line : room - 1;
        memcpy(end, block, count);
        end += count;
        *end = '\0';
        room -= count;
        idle = count > 0 ? 0 : idle + 1;
    }
    return 0;
}

int PutText(const char *pEntry, const char *pFileName, const char *pBuf, int placement) {
    if (pFileName == nullptr || pBuf == nullptr) {
        LOG_AS(pEntry, "input error : (pFileName, pBuf) = (%p, %p)\n",
               static_cast<const void *>(pFileName), static_cast<const void *>(pBuf));
        return -1;
    }
    const UniqueFd fd{OpenPath(pFileName, O_WRONLY | O_CREAT | placement, kNewFileMode)};
    if (!fd) {
        LOG_ERRNO_AS(pEntry, "open(%s) error : %s\n", pFileName);
        return -1;
    }
    return write(fd.get(), pBuf, strlen(pBuf)) > 0 ? 0 : -1;
}

// A negative count is refused as the kernel refuses it, before it becomes a size_t.
ssize_t WriteBytes(int fd, const void *pData, int len) {
    if (len < 0) {
        errno = EINVAL;
        return -1;
    }
    return write(fd, pData, static_cast<size_t>(len));
}

ssize_t ReadBytes(int fd, void *pBuf, int len) {
    if (len < 0) {
        errno = EINVAL;
        return -1;
    }
    return read(fd, pBuf, static_cast<size_t>(len));
}

struct PieceWritten {
    int remaining;
    ssize_t last;  // what the last write returned
};

// One write at least, so that an empty piece too has a result.
PieceWritten WritePiece(const char *pEntry, int fd, const char *pData, int len) {
    PieceWritten piece{len, 0};
    int idle = 0;
    do {
        const int done = len - piece.remaining;
        piece.last = WriteBytes(fd, pData == nullptr ? nullptr : pData + done, piece.remaining);
        if (piece.last == 0 && piece.remaining != 0 && ++idle == kMaxIdleWrites) {
            errno = EIO;
            piece.last = -1;
        }
        if (piece.last < 0) {
            LOG_ERRNO_AS(pEntry, "write(%d, %d) error : %s\n", done, piece.remaining);
            break;
        }
        if (piece.last > 0) {
            idle = 0;
            piece.remaining -= static_cast<int>(piece.last);
        }
    } while (piece.remaining != 0);
    return piece;
}

struct Ring {
    const char *bytes;
    int start;
    int size;
};

// Bytes saved, or -1 when the part up to the ring's end failed.
int WriteRing(const char *pEntry, int fd, const Ring &ring, int len) {
    const char *from = ring.bytes == nullptr ? nullptr : ring.bytes + ring.start;
    const int64_t first = int64_t{ring.size} - ring.start;
    if (ring.size < 1 || first >= len) {
        return len - WritePiece(pEntry, fd, from, len).remaining;
    }
    // An empty part up to the ring's end ends the save as a failed one does.
    // Held by SaveRingBufDataIntoFile.StartAtTheRingsEndSavesNothing.
    if (WritePiece(pEntry, fd, from, static_cast<int>(first)).last <= 0) {
        return -1;
    }
    return len - WritePiece(pEntry, fd, ring.bytes, len - static_cast<int>(first)).remaining;
}

// Writes a field that need not be terminated inside its width.
template <size_t kWidth>
struct FieldText {
    explicit FieldText(const char (&field)[kWidth]) { memcpy(text, field, strnlen(field, kWidth)); }
    char text[kWidth + 1] = {};
};

constexpr bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

constexpr bool IsLetterOrDigit(char c) {
    return IsDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// The run as "%04d" writes its value, for any length of run.
void PadRevision(char *pRun) {
    constexpr size_t kDigits = 4;
    const char *digits = pRun;
    size_t count = strlen(pRun);
    while (*digits == '0' && count > 1) {
        ++digits;
        --count;
    }
    const size_t zeros = count < kDigits ? kDigits - count : 0;
    memmove(pRun + zeros, digits, count + 1);
    memset(pRun, '0', zeros);
}

}  // namespace
}  // namespace talvek

int COM_GetFileContent(const char *pFileName, char *pBuf, int len) {
    if (pFileName == nullptr || pBuf == nullptr || len < 1) {
        LOG("input error : (pFileName, pBuf, len) = (%p, %p, %d)\n",
            static_cast<const void *>(pFileName), static_cast<void *>(pBuf), len);
        return pBuf != nullptr ? talvek::FillUnknown(pBuf, len) : -1;
    }
    const talvek::UniqueFd fd{talvek::OpenPath(pFileName, O_RDONLY)};
    if (!fd) {
        if (errno != ENOENT) {
            LOG_ERRNO("open(%s) error : %s\n", pFileName);
        }
        return talvek::FillUnknown(pBuf, len);
    }
    if (len == 1) {
        return talvek::FillUnknown(pBuf, len);
    }
    return talvek::AppendFirstLines(fd.get(), pBuf, len);
}

int COM_SetFileContent(const char *pFileName, const char *pBuf) {
    return talvek::PutText(__func__, pFileName, pBuf, O_TRUNC);
}

int COM_AppendFileContent(const char *pFileName, const char *pBuf) {
    return talvek::PutText(__func__, pFileName, pBuf, O_APPEND);
}

int COM_SaveDataIntoFile(const char *pFileName, const void *pData, int len) {
    const talvek::UniqueFd fd{
        talvek::OpenPath(pFileName, O_WRONLY | O_CREAT | O_TRUNC, talvek::kNewFileMode)};
    if (!fd) {
        LOG_ERRNO("open(%s) fail : %s\n", talvek::Shown(pFileName));
        return -1;
    }
    errno = 0;  // a short write has no error of its own
    const ssize_t count = talvek::WriteBytes(fd.get(), pData, len);
    if (count >= 0 && count == len) {
        return 0;
    }
    if (count > 0) {
        LOG_ERRNO("write(%s) size failed - %d/%d - %s\n", pFileName, static_cast<int>(count), len);
        return 1;
    }
    return static_cast<int>(count);
}

int COM_SaveRingBufDataIntoFile(const char *pFileName, const void *pRing, int start, int ringSize,
                                int len) {
    const talvek::UniqueFd fd{talvek::OpenPath(pFileName, O_WRONLY | O_CREAT | O_TRUNC | O_NOATIME,
                                               talvek::kNewFileMode)};
    if (!fd) {
        LOG_ERRNO("open(%s) fail : %s\n", talvek::Shown(pFileName));
        return -1;
    }
    const talvek::Ring ring{static_cast<const char *>(pRing), start, ringSize};
    const int count = talvek::WriteRing(__func__, fd.get(), ring, len);
    if (count >= 0 && count == len) {
        return 0;
    }
    if (count > 0) {
        LOG_ERRNO("write(%s) size failed - %d/[%d,%d]/%d - %s\n", pFileName, count, start, ringSize,
                  len);
        return 1;
    }
    return count;
}

int COM_LoadDataFromFile(const char *pFileName, void *pBuf, int len) {
    const talvek::UniqueFd fd{talvek::OpenPath(pFileName, O_RDONLY)};
    if (!fd) {
        LOG_ERRNO("open(%s) fail : %s\n", talvek::Shown(pFileName));
        return -1;
    }
    const ssize_t count = talvek::ReadBytes(fd.get(), pBuf, len);
    if (count >= 0 && count == len) {
        return 0;
    }
    return count > 0 ? 1 : static_cast<int>(count);
}

int COM_GetPort(char *pBuf, int size) {
    const int result = COM_GetFileContent("/etc/Port", pBuf, size);
    if (result == -1 && pBuf != nullptr && size != 0) {
        // A negative size has let the failure text take its eight bytes.
        const size_t room = size < 0 ? sizeof talvek::kUnknown : static_cast<size_t>(size);
        snprintf(pBuf, room, "%d", talvek::kDefaultPort);
    }
    return result;
}

int COM_SetPort(int port) {
    char text[8];
    // The format may be cut: no port number has more than five digits.
    const int length = snprintf(text, sizeof text, "%d", port);
    return length > 0 ? COM_SetFileContent("/etc/Port", text) : -1;
}

int COM_SetHostName(const char *pName) {
    if (pName == nullptr) {
        return -1;
    }
    const int result = sethostname(pName, strlen(pName));
    if (result == 0) {
        COM_SetFileContent("/etc/hostname", pName);
    }
    return result;
}

int COM_SetUnitInfo(const tUnitInfo *pInfo) {
    if (pInfo == nullptr) {
        return -1;
    }
    int sum = COM_SetFileContent("/etc/Model", talvek::FieldText{pInfo->model}.text);
    sum += COM_SetFileContent("/etc/Proj", talvek::FieldText{pInfo->project}.text);
    sum += COM_SetHostName(talvek::FieldText{pInfo->host_name}.text);
    sum += COM_SetFileContent("/etc/Note", talvek::FieldText{pInfo->note}.text);
    return sum;
}

int COM_MakeNode(const char *pPath, mode_t mode, dev_t dev) {
    struct stat st;
    if (talvek::StatPath(pPath, &st) == 0) {
        return 0;
    }
    if (errno != ENOENT) {
        LOG_ERRNO("stat(%s) fail : %s\n", talvek::Shown(pPath));
        return -1;
    }
    if (mknod(pPath, mode, dev) != 0) {
        LOG_ERRNO("mknod(%s) fail : %s\n", pPath);
        return -1;
    }
    return 0;
}

int COM_GetSvnRevision(char *pBuf) {
    constexpr char kMark[] = "Revision: ";
    char content[256 + 1] = {};
    if (pBuf == nullptr || COM_LoadDataFromFile("/etc/SVN", content, sizeof content - 1) < 0) {
        return -1;
    }
    const char *found = strstr(content, kMark);
    if (found == nullptr) {
        return -1;
    }
    const char *run = found + sizeof kMark - 1;
    size_t length = 0;
    bool digitsOnly = true;
    while (talvek::IsLetterOrDigit(run[length])) {
        digitsOnly = digitsOnly && talvek::IsDigit(run[length]);
        ++length;
    }
    memcpy(pBuf, run, length);
    pBuf[length] = '\0';
    if (digitsOnly && length > 0 && length != 4) {
        talvek::PadRevision(pBuf);
    }
    return 0;
}
