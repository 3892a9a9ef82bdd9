// The log of all modules: one message, one line, one write.

#include "common/log.h"

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>

#include "base/cancel_guard.h"
#include "base/clock.h"
#include "base/heap_buf.h"
#include "base/scope_exit.h"

namespace {

constexpr size_t kFirstMessageSize = 256;

struct LineStyle {
    const char *before;
    const char *after;
};

constexpr LineStyle kPlain{"", ""};
constexpr LineStyle kYellow{"\033[33m", "\033[0m"};

struct Origin {
    const char *module;
    int line;
    const char *function;  // NULL for none
};

enum class Formatted { kOk, kNoMemory, kNoMemoryToGrow };

// A va_list can be read only once, so each attempt reads a copy.
int FormatInto(char *pDst, size_t size, const char *pFormat, va_list args) {
    va_list pass;
    va_copy(pass, args);
    // The analyser does not see that va_copy has initialised the list.
    const int length = vsnprintf(pDst, size, pFormat, pass);  // NOLINT(clang-analyzer-valist.*)
    va_end(pass);
    return length;
}

// Formats into a block that grows to the size of the message. Up to 255 characters are formatted
// once, longer messages twice.
Formatted FormatMessage(talvek::HeapBuf<char> &message, const char *pFormat, va_list args) {
    size_t size = kFirstMessageSize;
    message.Reset(static_cast<char *>(malloc(size)));
    if (!message) {
        return Formatted::kNoMemory;
    }
    for (;;) {
        const int length = FormatInto(message.get(), size, pFormat, args);
        if (length >= 0 && static_cast<size_t>(length) < size) {
            return Formatted::kOk;
        }
        // A negative result gives no length to grow to. Doubling ends at the largest length that
        // printf can report, so a format that always fails ends here too.
        if (length < 0 && size > INT_MAX / 2) {
            return Formatted::kNoMemoryToGrow;
        }
        size = length >= 0 ? static_cast<size_t>(length) + 1 : size * 2;
        if (!message.Resize(size)) {
            return Formatted::kNoMemoryToGrow;
        }
    }
}

// The stream stays locked from the line to its flush, so that the line leaves in one piece.
int WriteLine(const LineStyle &style, const Origin &origin, const char *pMessage) {
    flockfile(stdout);
    const talvek::ScopeExit unlock{[] { funlockfile(stdout); }};
    const int count = origin.function != nullptr
                          ? printf("%s%s,%d:%s(): %s%s", style.before, origin.module, origin.line,
                                   origin.function, pMessage, style.after)
                          : printf("%s%s,%d: %s%s", style.before, origin.module, origin.line,
                                   pMessage, style.after);
    fflush(stdout);
    return count;
}

int LogLine(const LineStyle &style, const Origin &origin, const char *pFormat, va_list args) {
    const talvek::ErrnoKeeper keep;
    const talvek::CancelGuard guard;
    talvek::HeapBuf<char> message;
    switch (FormatMessage(message, pFormat, args)) {
        case Formatted::kOk:
            return WriteLine(style, origin, message.get());
        case Formatted::kNoMemoryToGrow:
            message.Reset();
            return WriteLine(
                style, {origin.module, origin.line, origin.function ? origin.function : "(null)"},
                "Failed to print");
        case Formatted::kNoMemory:
            break;
    }
    return -1;
}

}  // namespace

int COM_Log(const char *pModule, int line, const char *pFunction, const char *pFormat, ...) {
    va_list args;
    va_start(args, pFormat);
    const int count = LogLine(kPlain, {pModule, line, pFunction}, pFormat, args);
    va_end(args);
    return count;
}

int COM_LogColor(const char *pModule, int line, const char *pFunction, const char *pFormat, ...) {
    va_list args;
    va_start(args, pFormat);
    const int count = LogLine(kYellow, {pModule, line, pFunction}, pFormat, args);
    va_end(args);
    return count;
}

int COM_PrintTimeStamp(const char *pModule, int line) {
    const talvek::ErrnoKeeper keep;
    const talvek::CancelGuard guard;
    struct timeval now;
    if (gettimeofday(&now, nullptr) == -1) {
        return -1;
    }
    char text[32];
    if (!talvek::FormatUtc(text, sizeof text, now.tv_sec)) {
        return -1;
    }
    const long usec = static_cast<long>(now.tv_usec);
    if (pModule == nullptr) {
        printf("[%s.%06ld] ", text, usec);
    } else {
        printf("%s,%d: [%s.%06ld] ", pModule, line, text, usec);
    }
    return 0;
}
