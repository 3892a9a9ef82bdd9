// What the kernel reports under /proc, and times as text.

#include "common/system_info.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "base/cancel_guard.h"
#include "base/characters.h"
#include "base/clock.h"
#include "base/heap_buf.h"
#include "base/path.h"
#include "base/scope_exit.h"
#include "base/unique_stream.h"
#include "common/file_content.h"
#include "common/internal/module_log.h"
#include "common/text.h"

namespace {

constexpr char kMemInfo[] = "/proc/meminfo";
constexpr char kPciDevices[] = "/proc/bus/pci/devices";
constexpr char kNoBuffer[] = "Warnning!! (*pBuf != NULL)\n";

// In the order of the figures.
constexpr const char *kMemKeys[COM_MEM_FIGURES] = {
    "MemTotal:", "MemFree:", "SwapTotal:", "SwapFree:"};

talvek::UniqueFile OpenForReading(const char *pFunction, const char *pPath) {
    talvek::UniqueFile file{talvek::OpenStream(pPath, "r")};
    if (!file) {
        LOG_ERRNO_AS(pFunction, "fopen(%s) error : %s\n", talvek::Shown(pPath));
    }
    return file;
}

// The second of the fields that the delimiters separate, or NULL. Cuts the line.
char *SecondField(char *pLine, const char *pDelimiters) {
    char *rest = nullptr;
    return strtok_r(pLine, pDelimiters, &rest) != nullptr ? strtok_r(nullptr, pDelimiters, &rest)
                                                          : nullptr;
}

// Numbers are clamped to 32 bits on every host, as strtol does where `long` has 32 bits.
int32_t ToInt32(const char *pText) {
    const long long value = strtoll(pText, nullptr, 10);
    return static_cast<int32_t>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
}

uint32_t HexToUint32(const char *pText) {
    const unsigned long long value = strtoull(pText, nullptr, 16);
    return static_cast<uint32_t>(std::min<unsigned long long>(value, UINT32_MAX));
}

// The index of the figure that a line names, or COM_MEM_FIGURES.
int FindMemKey(const char *pLine) {
    int key = 0;
    while (key < COM_MEM_FIGURES && strncmp(pLine, kMemKeys[key], strlen(kMemKeys[key])) != 0) {
        ++key;
    }
    return key;
}

int CountPciLines(const char *pFunction, const char *pPattern) {
    if (pPattern == nullptr) {
        LOG_AS(pFunction, kNoBuffer);
        return -1;
    }
    const talvek::UniqueFile file = OpenForReading(pFunction, kPciDevices);
    if (!file) {
        return -1;
    }
    int count = 0;
    char line[256];
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        count += COM_StrCaseStr(line, pPattern) != nullptr;
    }
    return count;
}

// As isgraph has it in the "C" locale.
constexpr bool IsGraphic(char c) {
    return c > ' ' && c < 0x7F;
}

void CopyName(tDeviceName &name, const char *pFrom, const char *pEnd) {
    size_t length = 0;
    for (; pFrom < pEnd && length < sizeof name - 1; ++pFrom) {
        if (IsGraphic(*pFrom)) {
            name[length++] = *pFrom;
        }
    }
    name[length] = '\0';
}

struct Part {
    const char *begin;
    size_t length;
};

void CopyPart(char *pDst, const Part &part) {
    if (pDst != nullptr) {
        memcpy(pDst, part.begin, part.length);
        pDst[part.length] = '\0';
    }
}

}  // namespace

int COM_GetMemAndSwap(int32_t *pValue) {
    const talvek::CancelGuard guard;
    const talvek::UniqueFile file = OpenForReading(__func__, kMemInfo);
    if (!file) {
        return -1;
    }
    int result = -1;
    bool changed = false;
    char line[80];
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        const int key = FindMemKey(line);
        if (key == COM_MEM_FIGURES) {
            continue;
        }
        const char *field = SecondField(line, " \t\n");
        result = field != nullptr ? 0 : -1;
        if (field != nullptr && pValue != nullptr) {
            const int32_t value = ToInt32(field);
            changed = changed || value != pValue[key];
            pValue[key] = value;
        }
    }
    for (int i = 0; changed && i < COM_MEM_FIGURES; ++i) {
        LOG_PLAIN("Got pValue[%d] = %d\n", i, static_cast<int>(pValue[i]));
    }
    return result;
}

int COM_GetPciDeviceId(const char *pPattern, uint32_t *pIds, int max) {
    const talvek::CancelGuard guard;
    if (pPattern == nullptr || pIds == nullptr) {
        LOG(kNoBuffer);
        return -1;
    }
    const talvek::UniqueFile file = OpenForReading(__func__, kPciDevices);
    if (!file) {
        return -1;
    }
    int count = 0;
    char line[512];
    while (count < max && fgets(line, sizeof line, file.get()) != nullptr) {
        if (COM_StrCaseStr(line, pPattern) == nullptr) {
            continue;
        }
        const char *field = SecondField(line, " \t");
        if (field != nullptr) {
            pIds[count] = HexToUint32(field);
        }
        ++count;
    }
    return count;
}

int COM_GetPciDevice(const char *pPattern) {
    const talvek::CancelGuard guard;
    const int count = CountPciLines(__func__, pPattern);
    LOG_PLAIN("Total %d devices(%s) found on \"%s\"\n", count, talvek::Shown(pPattern),
              kPciDevices);
    return count;
}

int COM_GetDeviceFromProc(tDeviceName **ppList, const char *pPath) {
    const talvek::CancelGuard guard;
    if (ppList == nullptr || *ppList != nullptr) {
        LOG(kNoBuffer);
        return -1;
    }
    const talvek::UniqueFile file = OpenForReading(__func__, pPath);
    if (!file) {
        return -1;
    }
    talvek::HeapBuf<tDeviceName> list;
    int count = 0;
    char line[256];
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        const char *colon = strchr(line, ':');
        if (colon == nullptr) {
            continue;
        }
        if (!list.Resize(static_cast<size_t>(count) + 1)) {
            LOG_ERRNO("REALLOC() failed : %s\n");
            continue;
        }
        CopyName(list[static_cast<size_t>(count)], line, colon);
        ++count;
    }
    *ppList = list.Release();
    return count;
}

int COM_GetKernelVersion(char *pRelease, char *pExtra) {
    const talvek::CancelGuard guard;
    constexpr char kMark[] = "Linux version ";
    char content[COM_KERNEL_TEXT_SIZE + 1] = {};
    if (COM_LoadDataFromFile("/proc/version", content, sizeof content - 1) < 0) {
        return -1;
    }
    const char *mark = strstr(content, kMark);
    if (mark == nullptr) {
        return -1;
    }
    const char *release = mark + sizeof kMark - 1;
    const char *dot = strchr(release, '.');
    dot = dot != nullptr ? strchr(dot + 1, '.') : nullptr;
    if (dot == nullptr) {
        return -1;
    }
    const char *end = dot + 1;
    while (talvek::IsDigit(*end)) {
        ++end;
    }
    const char *extra = *end != '\0' ? end + 1 : end;
    CopyPart(pRelease, {release, static_cast<size_t>(end - release)});
    CopyPart(pExtra, {extra, strcspn(extra, " \t\n\v\f\r")});
    return 0;
}

int COM_TimeToStr(char *pBuf, time_t t) {
    return pBuf != nullptr && talvek::FormatUtc(pBuf, COM_TIME_SIZE, t) ? 0 : -1;
}

int COM_TimevalToStr(char *pBuf, time_t sec, long usec) {
    if (COM_TimeToStr(pBuf, sec) != 0) {
        return -1;
    }
    // The text keeps the second of `sec`.
    // Tested by TimevalText.KeepsTheSecondOfANegativeMicrosecond.
    const long shown = usec < 0 ? usec + 1000000 : usec;
    const size_t length = strlen(pBuf);
    const int written = snprintf(pBuf + length, COM_TIMEVAL_SIZE - length, ".%06ld", shown);
    return written > 0 ? 0 : -1;
}

int COM_PrintTime(const char *pPrefix, int line, time_t t) {
    const talvek::CancelGuard guard;
    char text[COM_TIME_SIZE];
    if (COM_TimeToStr(text, t) != 0) {
        return -1;
    }
    flockfile(stdout);
    const talvek::ScopeExit unlock{[] { funlockfile(stdout); }};
    if (pPrefix != nullptr) {
        printf("%s,%d: ", pPrefix, line);
    }
    printf("[%lld] -> [%s]\n", static_cast<long long>(t), text);
    fflush(stdout);
    return 0;
}

struct tm *COM_GmTime(struct tm *pTm, time_t t) {
    return pTm != nullptr ? gmtime_r(&t, pTm) : nullptr;
}
