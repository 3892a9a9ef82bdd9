#ifndef TALVEK_SERVICE_INTERNAL_SERVICE_LOG_H
#define TALVEK_SERVICE_INTERNAL_SERVICE_LOG_H

#include "common/log.h"

// Most lines of the service carry no function name; those that do say which.
#define TALVEK_LOG_PLAIN(...) COM_Log("TALVEK", __LINE__, nullptr, __VA_ARGS__)
#define TALVEK_LOG_AS(function, ...) COM_Log("TALVEK", __LINE__, function, __VA_ARGS__)

#endif
