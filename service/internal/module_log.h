#ifndef TALVEK_SERVICE_INTERNAL_MODULE_LOG_H
#define TALVEK_SERVICE_INTERNAL_MODULE_LOG_H

#include "common/log.h"

#define TALVEK_MODULE "TALVEK"
#include "base/log_macros.h"

#endif
