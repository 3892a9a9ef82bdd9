#ifndef TALVEK_COMMON_INTERNAL_INTERFACE_NAME_H
#define TALVEK_COMMON_INTERNAL_INTERFACE_NAME_H

#include <net/if.h>

namespace talvek {

// The interface that a caller of COM_GetNetInfo means: for null and "auto" that of the default
// route, whose name is then kept in `route`, or "eth0" when there is none; else pName itself.
const char *MeantInterface(const char *pName, char (&route)[IFNAMSIZ]);

}  // namespace talvek

#endif
