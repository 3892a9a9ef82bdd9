// Look-ups in /proc/mounts and /proc/partitions.

#include "dev/mount_table.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>

#include "base/heap_buf.h"
#include "base/path.h"
#include "base/scope_exit.h"
#include "base/unique_fd.h"
#include "base/unique_stream.h"
#include "dev/internal/copy_text.h"
#include "dev/internal/module_log.h"

namespace talvek {
namespace {

constexpr const char *kMounts = "/proc/mounts";
constexpr const char *kPartitions = "/proc/partitions";

bool IsOctal(char c) {
    return c >= '0' && c <= '7';
}

// Puts the characters in place that the kernel wrote as a backslash and three octal digits.
void DecodeEscapes(char *pText) {
    char *pTo = strchr(pText, '\\');
    if (pTo == nullptr) {
        return;
    }
    for (const char *pFrom = pTo; *pFrom != '\0';) {
        if (pFrom[0] == '\\' && pFrom[1] >= '0' && pFrom[1] <= '3' && IsOctal(pFrom[2]) &&
            IsOctal(pFrom[3])) {
            const int value = (pFrom[1] - '0') * 64 + (pFrom[2] - '0') * 8 + (pFrom[3] - '0');
            *pTo++ = static_cast<char>(value);
            pFrom += 4;
        } else {
            *pTo++ = *pFrom++;
        }
    }
    *pTo = '\0';
}

struct MountLine {
    char *device;
    char *mountPoint;
    char *type;
    char *options;
};

// Reads the mounts one after the other. A line is taken whole however long it is: the options of an
// NFS mount easily pass 256 characters, and the server's address stands at their end.
class MountReader {
  public:
    explicit MountReader(const char *pFunction) : stream_(OpenStream(kMounts, "r")) {
        if (!stream_) {
            LOG_ERRNO_AS(pFunction, "fopen(%s) error : %s\n", kMounts);
        }
    }

    // The next line that has at least two names; its texts hold until the next call.
    bool Next(MountLine &line) {
        while (stream_ && ReadLine()) {
            char *pRest = line_.get();
            line = {NextField(&pRest), NextField(&pRest), NextField(&pRest), NextField(&pRest)};
            if (line.mountPoint[0] != '\0') {
                return true;
            }
        }
        return false;
    }

  private:
    bool ReadLine() {
        // The block may have moved, also when the thread is cancelled in the call.
        char *pLine = line_.Release();
        const ScopeExit keep{[this, &pLine] { line_.Reset(pLine); }};
        return getline(&pLine, &capacity_, stream_.get()) > 0;
    }

    // An empty text when the line has no more.
    static char *NextField(char **ppRest) {
        char *pField = *ppRest + strspn(*ppRest, " \n");
        char *pEnd = pField + strcspn(pField, " \n");
        *ppRest = *pEnd != '\0' ? pEnd + 1 : pEnd;
        *pEnd = '\0';
        DecodeEscapes(pField);
        return pField;
    }

    UniqueFile stream_;
    HeapBuf<char> line_;
    size_t capacity_ = 0;
};

bool DeviceMatches(const char *pDevice, const char *pWanted, size_t n) {
    if (n == 0) {
        return strncmp(pDevice, pWanted, strlen(pWanted)) == 0;
    }
    return strncmp(pDevice, pWanted, n) == 0 && strnlen(pDevice, n) == strlen(pDevice);
}

int FindMountPoint(const char *pFunction, const char *pDev, char *pMountPoint, unsigned n) {
    if (pDev == nullptr || pMountPoint == nullptr) {
        LOG_AS(pFunction, "(%p, %p, %d) : Null ptr\n", static_cast<const void *>(pDev),
               static_cast<void *>(pMountPoint), static_cast<int>(n));
        return -1;
    }
    MountReader mounts{pFunction};
    for (MountLine line; mounts.Next(line);) {
        if (DeviceMatches(line.device, pDev, n)) {
            CopyText(pFunction, pMountPoint, DEV_MOUNT_TEXT_SIZE, line.mountPoint);
            return 0;
        }
    }
    return -1;
}

std::string_view WithoutSlashesAtEnd(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') {
        path.remove_suffix(1);
    }
    return path;
}

// The name of one line of /proc/partitions, which is "major minor #blocks name" with blanks before
// each number; empty for the heading and the blank line behind it.
std::string_view PartitionOfLine(std::string_view line) {
    std::string_view name;
    for (int field = 0; field < 4; ++field) {
        const size_t begin = line.find_first_not_of(" \t");
        if (begin == line.npos) {
            return {};
        }
        line.remove_prefix(begin);
        name = line.substr(0, line.find_first_of(" \t"));
        line.remove_prefix(name.size());
        if (field < 3 && name.find_first_not_of("0123456789") != name.npos) {
            return {};
        }
    }
    return name;
}

bool ListsPartition(std::string_view lines, std::string_view wanted) {
    while (!lines.empty()) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        if (PartitionOfLine(line) == wanted) {
            return true;
        }
        lines.remove_prefix(line.size() < lines.size() ? line.size() + 1 : line.size());
    }
    return false;
}

}  // namespace
}  // namespace talvek

int Dev_nGetMPT(const char *pDev, char *pMountPoint, unsigned n) {
    return talvek::FindMountPoint(__func__, pDev, pMountPoint, n);
}

int Dev_GetMPT(const char *pDev, char *pMountPoint) {
    return talvek::FindMountPoint(__func__, pDev, pMountPoint, 0);
}

int Dev_GetDevViaMount(char *pDev, const char *pMountPoint) {
    if (pDev == nullptr || pMountPoint == nullptr) {
        LOG("(%p, %p) : Null ptr\n", static_cast<void *>(pDev),
            static_cast<const void *>(pMountPoint));
        return -1;
    }
    int result = -1;
    talvek::MountReader mounts{__func__};
    for (talvek::MountLine line; mounts.Next(line);) {
        if (strcmp(line.mountPoint, pMountPoint) == 0) {
            talvek::CopyText(__func__, pDev, DEV_MOUNT_TEXT_SIZE, line.device);
            result = 0;
        }
    }
    return result;
}

int Dev_GetEntryViaMtab(const char *pKey, tMountEntry *pEntry) {
    if (pKey == nullptr || pEntry == nullptr) {
        LOG("(%p, %p) : Null ptr\n", static_cast<const void *>(pKey), static_cast<void *>(pEntry));
        return -1;
    }
    const std::string_view wanted = talvek::WithoutSlashesAtEnd(pKey);
    int result = -1;
    talvek::MountReader mounts{__func__};
    for (talvek::MountLine line; mounts.Next(line);) {
        if (wanted == line.mountPoint) {
            talvek::CopyText(__func__, pEntry->device, sizeof pEntry->device, line.device);
            talvek::CopyText(__func__, pEntry->mountPoint, sizeof pEntry->mountPoint,
                             line.mountPoint);
            talvek::CopyText(__func__, pEntry->type, sizeof pEntry->type, line.type);
            talvek::CopyText(__func__, pEntry->options, sizeof pEntry->options, line.options);
            result = 0;
        }
    }
    return result;
}

int Dev_CheckPartition(const char *pName) {
    if (pName == nullptr) {
        return -1;
    }
    const char *pSlash = strrchr(pName, '/');
    const std::string_view wanted = pSlash != nullptr ? pSlash + 1 : pName;
    if (wanted.empty()) {
        return -1;
    }
    const talvek::UniqueFd fd{open(talvek::kPartitions, O_RDONLY | O_CLOEXEC)};
    if (!fd) {
        LOG_ERRNO("open(%s) error : %s\n", talvek::kPartitions);
        return -1;
    }
    char block[4096];
    for (;;) {
        const ssize_t count = read(fd.get(), block, sizeof block);
        if (count <= 0) {
            if (count < 0) {
                LOG_ERRNO("read(%s) error : %s\n", talvek::kPartitions);
            }
            return -1;
        }
        // Whole lines only; the next read begins where the last of them ended. What fills a block
        // without an end of line is no line of this file.
        const std::string_view text{block, static_cast<size_t>(count)};
        const size_t lastEnd = text.rfind('\n');
        const std::string_view lines = lastEnd != text.npos ? text.substr(0, lastEnd + 1) : text;
        if (talvek::ListsPartition(lines, wanted)) {
            return 0;
        }
        const size_t left = text.size() - lines.size();
        if (left > 0 && lseek(fd.get(), -static_cast<off_t>(left), SEEK_CUR) == -1) {
            LOG_ERRNO("lseek(%s) error : %s\n", talvek::kPartitions);
            return -1;
        }
    }
}
