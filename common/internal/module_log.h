#ifndef TALVEK_COMMON_INTERNAL_MODULE_LOG_H
#define TALVEK_COMMON_INTERNAL_MODULE_LOG_H

#include "common/log.h"

#define TALVEK_MODULE "COMMON"
#include "base/log_macros.h"

#endif
