#ifndef TALVEK_COMMON_INTERNAL_INTERFACE_NAME_H
#define TALVEK_COMMON_INTERNAL_INTERFACE_NAME_H

#include <net/if.h>

namespace talvek {

// Resolves an interface name from a caller. NULL and "auto" name the interface of the default
// route, which is then stored in `route`, or "eth0" when there is none; any other name is returned
// unchanged.
const char *ResolveInterface(const char *pName, char (&route)[IFNAMSIZ]);

}  // namespace talvek

#endif
