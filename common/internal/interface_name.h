#ifndef TALVEK_COMMON_INTERNAL_INTERFACE_NAME_H
#define TALVEK_COMMON_INTERNAL_INTERFACE_NAME_H

#include <net/if.h>

namespace talvek {

// Resolves an interface name from a caller. For NULL and "auto" returns the interface of the
// default route, whose name is stored in `route`, or "eth0" without a default route. Returns any
// other name unchanged.
const char *ResolveInterface(const char *pName, char (&route)[IFNAMSIZ]);

}  // namespace talvek

#endif
