#ifndef TALVEK_DEV_INTERNAL_MODULE_LOG_H
#define TALVEK_DEV_INTERNAL_MODULE_LOG_H

#include "common/log.h"

// One macro a module: module name, line and the function's own name. A helper that works for an
// entry says the entry's name with the _AS form; lines that carry no function name use _PLAIN.
#define DEV_LOG(...) COM_Log("DEV", __LINE__, __func__, __VA_ARGS__)
#define DEV_LOG_AS(function, ...) COM_Log("DEV", __LINE__, function, __VA_ARGS__)
#define DEV_LOG_PLAIN(...) COM_Log("DEV", __LINE__, nullptr, __VA_ARGS__)

#endif
