#ifndef TALVEK_DNS_INTERNAL_MODULE_LOG_H
#define TALVEK_DNS_INTERNAL_MODULE_LOG_H

#include "common/log.h"

#define TALVEK_MODULE "DNS"
#include "base/log_macros.h"

#endif
