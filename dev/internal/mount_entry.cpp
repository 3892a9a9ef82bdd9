// The mounts of the machine, as /proc/mounts lists them.

#include "dev/internal/mount_entry.h"

#include <stdio.h>
#include <string.h>

#include "base/path.h"
#include "dev/internal/copy_bounded.h"
#include "dev/internal/module_log.h"

namespace talvek {
namespace {

constexpr const char *kMounts = "/proc/mounts";

bool IsOctal(char c) {
    return c >= '0' && c <= '7';
}

// Decodes the characters that the kernel writes as a backslash and three octal digits.
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

// Cuts the next field off the line; it is empty at the end of the line.
const char *NextField(char **ppRest) {
    char *pField = *ppRest + strspn(*ppRest, " \n");
    char *pEnd = pField + strcspn(pField, " \n");
    *ppRest = *pEnd != '\0' ? pEnd + 1 : pEnd;
    *pEnd = '\0';
    DecodeEscapes(pField);
    return pField;
}

// The length of a path without the slashes at its end; the root directory keeps one.
size_t LengthWithoutSlashes(const char *pPath) {
    size_t length = strlen(pPath);
    while (length > 1 && pPath[length - 1] == '/') {
        --length;
    }
    return length;
}

}  // namespace

MountReader::MountReader(const char *pFunction) : stream_(OpenStream(kMounts, "r")) {
    if (!stream_) {
        LOG_ERRNO_AS(pFunction, "fopen(%s) error : %s\n", kMounts);
    }
}

bool MountReader::Next(MountLine &line) {
    while (stream_) {
        char *pLine = line_.Release();  // getline may move the block
        const ssize_t length = getline(&pLine, &capacity_, stream_.get());
        line_.Reset(pLine);
        if (length <= 0) {
            return false;
        }
        line = {NextField(&pLine), NextField(&pLine), NextField(&pLine), NextField(&pLine)};
        if (line.mountPoint[0] != '\0') {
            return true;
        }
    }
    return false;
}

bool FindMountEntry(const char *pDir, tMountEntry &entry, CutFields &cut) {
    constexpr const char *kFunction = "Dev_GetEntryViaMtab";
    const size_t length = LengthWithoutSlashes(pDir);
    bool found = false;
    MountReader mounts{kFunction};
    for (MountLine line; mounts.Next(line);) {
        if (strlen(line.mountPoint) != length || memcmp(line.mountPoint, pDir, length) != 0) {
            continue;
        }
        found = true;
        cut.device = !CopyBounded(kFunction, entry.device, sizeof entry.device, line.device);
        CopyBounded(kFunction, entry.mountPoint, sizeof entry.mountPoint, line.mountPoint);
        CopyBounded(kFunction, entry.type, sizeof entry.type, line.type);
        cut.options = !CopyBounded(kFunction, entry.options, sizeof entry.options, line.options);
    }
    return found;
}

}  // namespace talvek
