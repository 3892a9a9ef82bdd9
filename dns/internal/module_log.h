#ifndef TALVEK_DNS_INTERNAL_MODULE_LOG_H
#define TALVEK_DNS_INTERNAL_MODULE_LOG_H

#include "common/log.h"

// One macro a module: module name, line and the function's own name. A helper that works for an
// entry says the entry's name with the _AS form.
#define DNS_LOG(...) COM_Log("DNS", __LINE__, __func__, __VA_ARGS__)
#define DNS_LOG_AS(function, ...) COM_Log("DNS", __LINE__, function, __VA_ARGS__)

#endif
