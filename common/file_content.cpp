// Reads or writes a whole file in one call: short texts, blocks of bytes, ring buffers, identity
// files.

#include "common/file_content.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/cancel_guard.h"
#include "base/characters.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "base/write_all.h"
#include "common/internal/module_log.h"

namespace {

constexpr mode_t kNewFileMode = 0664;
constexpr size_t kTextBlock = 255;
// 1 MiB without a character to keep is no text file. /dev/zero would be read for ever.
constexpr int kMaxIdleBlocks = 4096;
constexpr int kMaxIdleWrites = 1000;
constexpr char kUnknown[] = "unknown";

// A negative size does not truncate: printf ignores a negative precision.
int FillUnknown(char *pBuf, int size) {
    const size_t whole = sizeof kUnknown - 1;
    const size_t count = size < 0 ? whole : std::min(static_cast<size_t>(size), whole);
    memcpy(pBuf, kUnknown, count);
    pBuf[count] = '\0';
    return -1;
}

// Appends the first line of each block while there is room for more than the NUL.
int AppendFirstLines(int fd, char *pBuf, int size) {
    char *end = pBuf + strlen(pBuf);
    size_t room = static_cast<size_t>(size);
    int idle = 0;
    for (bool first = true; room > 1 && idle < kMaxIdleBlocks; first = false) {
        char block[kTextBlock + 1] = {};
        if (read(fd, block, kTextBlock) < 1) {
            return first ? FillUnknown(pBuf, size) : 0;
        }
        const size_t count = std::min(strcspn(block, "\r\n"), room - 1);
        memcpy(end, block, count);
        end += count;
        *end = '\0';
        room -= count;
        idle = count > 0 ? 0 : idle + 1;
    }
    return 0;
}

int WriteText(const char *pFunction, const char *pFileName, const char *pText, int placement) {
    if (pFileName == nullptr || pText == nullptr) {
        LOG_AS(pFunction, "input error : (pFileName, pBuf) = (%p, %p)\n",
               static_cast<const void *>(pFileName), static_cast<const void *>(pText));
        return -1;
    }
    const talvek::UniqueFd fd{
        talvek::OpenPath(pFileName, O_WRONLY | O_CREAT | placement, kNewFileMode)};
    if (!fd) {
        LOG_ERRNO_AS(pFunction, "open(%s) error : %s\n", pFileName);
        return -1;
    }
    // A text that is written in part is a success, without a log line.
    // Tested by SetFileContent.SucceedsForAPartOfTheText.
    const auto length = static_cast<ssize_t>(strlen(pText));
    return talvek::WriteAll(fd.get(), pText, length, talvek::Interrupted::kFails).done > 0 ? 0 : -1;
}

talvek::Written WriteRingPart(const char *pFunction, int fd, const char *pData, int size) {
    const talvek::Written written =
        talvek::WriteAll(fd, pData, size, talvek::Interrupted::kFails, kMaxIdleWrites);
    if (!written.complete()) {
        LOG_ERRNO_AS(pFunction, "write(%d, %d) error : %s\n", static_cast<int>(written.done),
                     static_cast<int>(size - written.done));
    }
    return written;
}

struct Ring {
    const char *bytes;
    int start;
    int size;
};

// Returns the number of bytes saved, or -1 when the part up to the end of the ring failed.
int WriteRing(const char *pFunction, int fd, const Ring &ring, int size) {
    const char *from = ring.bytes == nullptr ? nullptr : ring.bytes + ring.start;
    const int64_t toEnd = int64_t{ring.size} - ring.start;
    if (ring.size < 1 || toEnd >= size) {
        return static_cast<int>(WriteRingPart(pFunction, fd, from, size).done);
    }
    // An empty part up to the end of the ring fails too.
    // Tested by SaveRingBufDataIntoFile.FailsWithAStartAtTheEndOfTheRing.
    const int first = static_cast<int>(toEnd);
    if (WriteRingPart(pFunction, fd, from, first).last <= 0) {
        return -1;
    }
    return first + static_cast<int>(WriteRingPart(pFunction, fd, ring.bytes, size - first).done);
}

// The text of a field that may lack its NUL.
template <size_t kSize>
struct FieldText {
    explicit FieldText(const char (&field)[kSize]) { memcpy(text, field, strnlen(field, kSize)); }
    char text[kSize + 1] = {};
};

// Rewrites digits as printf's "%04d" would print their value, for any number of digits.
void PadRevision(char *pDigits) {
    constexpr size_t kWidth = 4;
    const char *value = pDigits;
    size_t count = strlen(pDigits);
    while (*value == '0' && count > 1) {
        ++value;
        --count;
    }
    const size_t zeros = count < kWidth ? kWidth - count : 0;
    memmove(pDigits + zeros, value, count + 1);
    memset(pDigits, '0', zeros);
}

}  // namespace

int COM_GetFileContent(const char *pFileName, char *pBuf, int size) {
    const talvek::CancelGuard guard;
    if (pFileName == nullptr || pBuf == nullptr || size < 1) {
        LOG("input error : (pFileName, pBuf, len) = (%p, %p, %d)\n",
            static_cast<const void *>(pFileName), static_cast<void *>(pBuf), size);
        return pBuf != nullptr ? FillUnknown(pBuf, size) : -1;
    }
    const talvek::UniqueFd fd{talvek::OpenPath(pFileName, O_RDONLY)};
    if (!fd) {
        if (errno != ENOENT) {
            LOG_ERRNO("open(%s) error : %s\n", pFileName);
        }
        return FillUnknown(pBuf, size);
    }
    if (size == 1) {
        return FillUnknown(pBuf, size);
    }
    return AppendFirstLines(fd.get(), pBuf, size);
}

int COM_SetFileContent(const char *pFileName, const char *pText) {
    const talvek::CancelGuard guard;
    return WriteText(__func__, pFileName, pText, O_TRUNC);
}

int COM_AppendFileContent(const char *pFileName, const char *pText) {
    const talvek::CancelGuard guard;
    return WriteText(__func__, pFileName, pText, O_APPEND);
}

int COM_SaveDataIntoFile(const char *pFileName, const void *pData, int size) {
    const talvek::CancelGuard guard;
    const talvek::UniqueFd fd{
        talvek::OpenPath(pFileName, O_WRONLY | O_CREAT | O_TRUNC, kNewFileMode)};
    if (!fd) {
        LOG_ERRNO("open(%s) fail : %s\n", talvek::Shown(pFileName));
        return -1;
    }
    const talvek::Written written =
        talvek::WriteAll(fd.get(), pData, size, talvek::Interrupted::kFails);
    if (written.complete()) {
        return COM_DATA_COMPLETE;
    }
    if (written.done > 0) {
        LOG_ERRNO("write(%s) size failed - %d/%d - %s\n", pFileName, static_cast<int>(written.done),
                  size);
        return COM_DATA_PARTIAL;
    }
    return static_cast<int>(written.last);
}

int COM_SaveRingBufDataIntoFile(const char *pFileName, const void *pRing, int start, int ringSize,
                                int size) {
    const talvek::CancelGuard guard;
    const talvek::UniqueFd fd{
        talvek::OpenPath(pFileName, O_WRONLY | O_CREAT | O_TRUNC | O_NOATIME, kNewFileMode)};
    if (!fd) {
        LOG_ERRNO("open(%s) fail : %s\n", talvek::Shown(pFileName));
        return -1;
    }
    const Ring ring{static_cast<const char *>(pRing), start, ringSize};
    const int count = WriteRing(__func__, fd.get(), ring, size);
    if (count >= 0 && count == size) {
        return COM_DATA_COMPLETE;
    }
    if (count > 0) {
        LOG_ERRNO("write(%s) size failed - %d/[%d,%d]/%d - %s\n", pFileName, count, start, ringSize,
                  size);
        return COM_DATA_PARTIAL;
    }
    return count;
}

int COM_LoadDataFromFile(const char *pFileName, void *pBuf, int size) {
    const talvek::CancelGuard guard;
    const talvek::UniqueFd fd{talvek::OpenPath(pFileName, O_RDONLY)};
    if (!fd) {
        LOG_ERRNO("open(%s) fail : %s\n", talvek::Shown(pFileName));
        return -1;
    }
    const ssize_t count = size >= 0 ? read(fd.get(), pBuf, static_cast<size_t>(size)) : -1;
    if (count > 0) {
        return count == size ? COM_DATA_COMPLETE : COM_DATA_PARTIAL;
    }
    return static_cast<int>(count);
}

int COM_GetPort(char *pBuf, int size) {
    const talvek::CancelGuard guard;
    const int result = COM_GetFileContent("/etc/Port", pBuf, size);
    if (result == -1 && pBuf != nullptr && size != 0) {
        // With a negative size, the text "unknown" was written in full: eight bytes.
        const size_t room = size < 0 ? sizeof kUnknown : static_cast<size_t>(size);
        snprintf(pBuf, room, "%d", COM_DEFAULT_PORT);
    }
    return result;
}

int COM_SetPort(int port) {
    const talvek::CancelGuard guard;
    char text[COM_PORT_SIZE];
    // A port number has at most five digits. Only a number that is no port is truncated.
    const int length = snprintf(text, sizeof text, "%d", port);
    return length > 0 ? COM_SetFileContent("/etc/Port", text) : -1;
}

int COM_SetHostName(const char *pName) {
    const talvek::CancelGuard guard;
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
    const talvek::CancelGuard guard;
    if (pInfo == nullptr) {
        return -1;
    }
    int sum = COM_SetFileContent("/etc/Model", FieldText{pInfo->model}.text);
    sum += COM_SetFileContent("/etc/Proj", FieldText{pInfo->project}.text);
    sum += COM_SetHostName(FieldText{pInfo->host_name}.text);
    sum += COM_SetFileContent("/etc/Note", FieldText{pInfo->note}.text);
    return sum;
}

int COM_MakeNode(const char *pPath, mode_t mode, dev_t dev) {
    const talvek::CancelGuard guard;
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
    constexpr size_t kContentSize = 256;
    static_assert(kContentSize - (sizeof kMark - 1) + 1 == COM_SVN_REVISION_SIZE);
    const talvek::CancelGuard guard;
    char content[kContentSize + 1] = {};
    if (pBuf == nullptr || COM_LoadDataFromFile("/etc/SVN", content, kContentSize) < 0) {
        return -1;
    }
    const char *found = strstr(content, kMark);
    if (found == nullptr) {
        return -1;
    }
    const char *revision = found + sizeof kMark - 1;
    size_t length = 0;
    bool digitsOnly = true;
    while (talvek::IsDigit(revision[length]) || talvek::IsLetter(revision[length])) {
        digitsOnly = digitsOnly && talvek::IsDigit(revision[length]);
        ++length;
    }
    memcpy(pBuf, revision, length);
    pBuf[length] = '\0';
    if (digitsOnly && length > 0 && length != 4) {
        PadRevision(pBuf);
    }
    return 0;
}
