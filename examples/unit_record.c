/* Shows the identity and the network settings of this unit.
 *
 *   unit_record          with the interface of the default route, or eth0 without one
 *   unit_record wlan0
 *
 * A fact that cannot be read has the failure text of the library: "unknown", or zeros. Exits with 1
 * when there was such a fact; the note may be missing.
 */

#include <string.h>
#include <talvek/common/COMMON.h>
#include <unistd.h>

#include "facts.h"

int main(int argc, char *argv[]) {
    while (FactsOption(argc, argv, "", "[interface]") != -1) {
    }
    if (argc > optind + 1) {
        FactsWrongUse();
    }

    tUnitNetInfo unit;
    memset(&unit, 0, sizeof unit);
    const int missing = -COM_GetUnitNetInfo(&unit, argc > optind ? argv[optind] : "auto");
    FactsText("model", unit.model);
    FactsText("project", unit.proj);
    FactsText("name", unit.name);
    FactsText("note", unit.note);
    FactsText("interface", unit.dev);
    FactsText("hardware_address", unit.mac);
    FactsText("address", unit.ip);
    FactsText("netmask", unit.netmask);
    FactsText("gateway", unit.gateway);
    FactsText("name_server", unit.dns);
    FactsText("port", unit.port);
    FactsNumber("mtu", unit.mtu, "bytes");
    FactsNumber("missing", missing, NULL);
    return FactsEnd(missing == 0 ? 0 : 1);
}
