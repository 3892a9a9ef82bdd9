#ifndef TALVEK_DNS_INTERNAL_NAME_H
#define TALVEK_DNS_INTERNAL_NAME_H

#include <string.h>

#include "dns/DNS.h"

namespace talvek {

// Bytes of a query beside its name: the header, the first label's length, the root label, QTYPE and
// QCLASS. Every "." of the name stands for the length of a label.
constexpr size_t kQueryOverhead = 18;
constexpr size_t kMaxQueriedName = DNS_MESSAGE_SIZE - kQueryOverhead;

// What is asked for: a mail address stands for its domain.
inline const char *QueriedName(const char *pDomainName) {
    const char *pAt = strchr(pDomainName, '@');
    return pAt != nullptr ? pAt + 1 : pDomainName;
}

inline bool FitsQuery(const char *pDomainName) {
    return strnlen(QueriedName(pDomainName), kMaxQueriedName + 1) <= kMaxQueriedName;
}

}  // namespace talvek

#endif
