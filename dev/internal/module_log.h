#ifndef TALVEK_DEV_INTERNAL_MODULE_LOG_H
#define TALVEK_DEV_INTERNAL_MODULE_LOG_H

#include "common/log.h"

#define TALVEK_MODULE "DEV"
#include "base/log_macros.h"

#endif
