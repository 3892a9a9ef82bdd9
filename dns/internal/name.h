#ifndef TALVEK_DNS_INTERNAL_NAME_H
#define TALVEK_DNS_INTERNAL_NAME_H

#include <string.h>

#include "dns/query.h"

namespace talvek {

// The name to ask for: of a mail address, its domain.
inline const char *QueriedName(const char *pDomainName) {
    const char *pAt = strchr(pDomainName, '@');
    return pAt != nullptr ? pAt + 1 : pDomainName;
}

inline bool FitsQuery(const char *pDomainName) {
    return strnlen(QueriedName(pDomainName), DNS_MAX_NAME + 1) <= DNS_MAX_NAME;
}

}  // namespace talvek

#endif
