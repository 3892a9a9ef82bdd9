// What the kernel tells under /proc, and texts of points in time.

#include "common/system_info.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "base/path.h"
#include "base/scope_exit.h"
#include "base/unique_stream.h"
#include "common/file_content.h"
#include "common/internal/module_log.h"
#include "common/text.h"

namespace talvek {
namespace {

constexpr char kMemInfo[] = "/proc/meminfo";
constexpr char kPciDevices[] = "/proc/bus/pci/devices";
constexpr char kNoBuffer[] = "Warnning!! (*pBuf != NULL)\n";

constexpr char kMemKeys[4][80] = {"MemTotal:", "MemFree:", "SwapTotal:", "SwapFree:"};
constexpr size_t kMemKeyCount = sizeof kMemKeys / sizeof kMemKeys[0];

constexpr size_t kTimeSize = 32;
constexpr size_t kTimevalSize = kTimeSize + 7;

UniqueFile OpenForReading(const char *pEntry, const char *pPath) {
    UniqueFile file{OpenStream(pPath, "r")};
    if (!file) {
        LOG_ERRNO_AS(pEntry, "fopen(%s) error : %s\n", Shown(pPath));
    }
    return file;
}

// The second of the fields that `delimiters` separate, or null. Cuts the line.
char *SecondField(char *pLine, const char *pDelimiters) {
    char *rest = nullptr;
    return strtok_r(pLine, pDelimiters, &rest) != nullptr ? strtok_r(nullptr, pDelimiters, &rest)
                                                          : nullptr;
}

// Numbers end at the limits of 32 bits on every host, as `long` does on the unit.
int32_t ToInt32(const char *pText) {
    const long long value = strtoll(pText, nullptr, 10);
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    return value < INT32_MIN ? INT32_MIN : static_cast<int32_t>(value);
}

uint32_t HexToUint32(const char *pText) {
    const unsigned long long value = strtoull(pText, nullptr, 16);
    return value > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(value);
}

// The index of the figure that a line names, or kMemKeyCount.
size_t FindMemKey(const char *pLine) {
    size_t key = 0;
    while (key < kMemKeyCount && strncmp(pLine, kMemKeys[key], strlen(kMemKeys[key])) != 0) {
        ++key;
    }
    return key;
}

int CountPciLines(const char *pEntry, const char *pPattern) {
    if (pPattern == nullptr) {
        LOG_AS(pEntry, kNoBuffer);
        return -1;
    }
    const UniqueFile file = OpenForReading(pEntry, kPciDevices);
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

constexpr bool IsGraphic(char c) {
    return c > ' ' && c < 0x7F;
}

constexpr bool IsDigit(char c) {
    return c >= '0' && c <= '9';
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
}  // namespace talvek

int COM_GetMemAndSwap(int32_t *pValue) {
    const talvek::UniqueFile file = talvek::OpenForReading(__func__, talvek::kMemInfo);
    if (!file) {
        return -1;
    }
    int result = -1;
    bool changed = false;
    char line[80];
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        const size_t key = talvek::FindMemKey(line);
        if (key == talvek::kMemKeyCount) {
            continue;
        }
        const char *field = talvek::SecondField(line, " \t\n");
        result = field != nullptr ? 0 : -1;
        if (field != nullptr && pValue != nullptr) {
            const int32_t value = talvek::ToInt32(field);
            changed = changed || value != pValue[key];
            pValue[key] = value;
        }
    }
    for (size_t i = 0; changed && i < talvek::kMemKeyCount; ++i) {
        LOG_PLAIN("Got pValue[%d] = %d\n", static_cast<int>(i), static_cast<int>(pValue[i]));
    }
    return result;
}

int COM_GetPciDeviceId(const char *pPattern, uint32_t *pIds, int max) {
    if (pPattern == nullptr || pIds == nullptr) {
        LOG(talvek::kNoBuffer);
        return -1;
    }
    const talvek::UniqueFile file = talvek::OpenForReading(__func__, talvek::kPciDevices);
    if (!file) {
        return -1;
    }
    int count = 0;
    char line[512];
    while (count < max && fgets(line, sizeof line, file.get()) != nullptr) {
        if (COM_StrCaseStr(line, pPattern) == nullptr) {
            continue;
        }
        const char *field = talvek::SecondField(line, " \t");
        if (field != nullptr) {
            pIds[count] = talvek::HexToUint32(field);
        }
        ++count;
    }
    return count;
}

int COM_GetPciDevice(const char *pPattern) {
    const int count = talvek::CountPciLines(__func__, pPattern);
    LOG_PLAIN("Total %d devices(%s) found on \"%s\"\n", count, talvek::Shown(pPattern),
              talvek::kPciDevices);
    return count;
}

int COM_GetDeviceFromProc(tDeviceName **ppList, const char *pPath) {
    if (ppList == nullptr || *ppList != nullptr) {
        LOG(talvek::kNoBuffer);
        return -1;
    }
    const talvek::UniqueFile file = talvek::OpenForReading(__func__, pPath);
    if (!file) {
        return -1;
    }
    int count = 0;
    char line[256];
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        const char *colon = strchr(line, ':');
        if (colon == nullptr) {
            continue;
        }
        const size_t size = (static_cast<size_t>(count) + 1) * sizeof(tDeviceName);
        auto *grown = static_cast<tDeviceName *>(realloc(*ppList, size));
        if (grown == nullptr) {
            LOG_ERRNO("REALLOC() failed : %s\n");
            continue;
        }
        *ppList = grown;
        talvek::CopyName(grown[count], line, colon);
        ++count;
    }
    return count;
}

int COM_GetKernelVersion(char *pRelease, char *pExtra) {
    constexpr char kMark[] = "Linux version ";
    char content[256 + 1] = {};
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
    talvek::CopyPart(pRelease, {release, static_cast<size_t>(end - release)});
    talvek::CopyPart(pExtra, {extra, strcspn(extra, " \t\n\v\f\r")});
    return 0;
}

int COM_TimeToStr(char *pBuf, time_t t) {
    struct tm calendar;
    if (pBuf == nullptr || gmtime_r(&t, &calendar) == nullptr) {
        return -1;
    }
    strftime(pBuf, talvek::kTimeSize, "%Y/%m/%d %H:%M:%S", &calendar);
    return 0;
}

int COM_TimevalToStr(char *pBuf, time_t sec, long usec) {
    if (COM_TimeToStr(pBuf, sec) != 0) {
        return -1;
    }
    // The text keeps the second before the loan.
    // Held by TimevalText.KeepsTheSecondOfANegativeMicrosecond.
    const long shown = usec < 0 ? usec + 1000000 : usec;
    const size_t length = strlen(pBuf);
    const int written = snprintf(pBuf + length, talvek::kTimevalSize - length, ".%06ld", shown);
    return written > 0 ? 0 : -1;
}

int COM_PrintTime(const char *pPrefix, int line, time_t t) {
    char text[talvek::kTimeSize];
    if (COM_TimeToStr(text, t) != 0) {
        return -1;
    }
    flockfile(stdout);
    const talvek::ScopeExit unlock{[] { funlockfile(stdout); }};
    if (pPrefix != nullptr) {
        printf("%s,%d: ", pPrefix, line);
    }
    printf("[%ld] -> [%s]\n", static_cast<long>(t), text);
    fflush(stdout);
    return 0;
}

struct tm *COM_GmTime(struct tm *pTm, time_t t) {
    return pTm != nullptr ? gmtime_r(&t, pTm) : nullptr;
}
