#ifndef TALVEK_BASE_LOG_MACROS_H
#define TALVEK_BASE_LOG_MACROS_H

#include <errno.h>
#include <string.h>

// Macros for a module's log lines. The module's internal/module_log.h includes common/log.h,
// defines TALVEK_MODULE as the module's name, and then includes this header.
//
//   LOG(format, ...)               names the function that logs
//   LOG_AS(function, format, ...)  names the entry that the helper works for
//   LOG_PLAIN(format, ...)         names none
//
// With _ERRNO after LOG, the text of errno is the last argument, for a "%s" at the end of the
// format.
#define LOG_AS(function, ...) COM_Log(TALVEK_MODULE, __LINE__, function, __VA_ARGS__)
#define LOG(...) LOG_AS(__func__, __VA_ARGS__)
#define LOG_PLAIN(...) LOG_AS(nullptr, __VA_ARGS__)
#define LOG_ERRNO_AS(function, ...) LOG_AS(function, __VA_ARGS__, strerror(errno))
#define LOG_ERRNO(...) LOG_ERRNO_AS(__func__, __VA_ARGS__)
#define LOG_ERRNO_PLAIN(...) LOG_ERRNO_AS(nullptr, __VA_ARGS__)

#endif
