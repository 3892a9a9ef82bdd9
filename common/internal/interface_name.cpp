// The interface that a caller names, or the one of the default route.

#include "common/internal/interface_name.h"

#include <string.h>

#include "common/net_info.h"

namespace talvek {

const char *ResolveInterface(const char *pName, char (&route)[IFNAMSIZ]) {
    if (pName != nullptr && strcmp(pName, "auto") != 0) {
        return pName;
    }
    return COM_GetDefaultRoute(route) == 0 ? route : "eth0";
}

}  // namespace talvek
