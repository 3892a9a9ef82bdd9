/* Announces this unit on a network where it has no address yet: one UDP broadcast with the unit's
 * model, name, hardware address and port, one "name value" a line. Needs CAP_NET_RAW.
 *
 *   announce eth0
 *   announce -t 5000 eth0      to port 5000 (default 4950)
 *
 * A receiver in the same network shows it with: nc -l -u 4950
 */

#include <stdio.h>
#include <string.h>
#include <talvek/common/COMMON.h>
#include <unistd.h>

#include "facts.h"

int main(int argc, char *argv[]) {
    uint16_t port = 4950;
    while (FactsOption(argc, argv, "t:", "[-t port] <interface>") != -1) {
        port = (uint16_t)FactsArgument(optarg, 1, 65535);
    }
    if (argc != optind + 1) {
        FactsWrongUse();
    }

    const char *pIfName = argv[optind];
    tUnitNetInfo unit;
    memset(&unit, 0, sizeof unit);
    COM_GetUnitNetInfo(&unit, pIfName); /* what is missing is announced as unknown */

    char text[COM_UDP_MAX_PAYLOAD];
    const int length = snprintf(text, sizeof text, "model %s\nname %s\nmac %s\nport %s\n",
                                unit.model, unit.name, unit.mac, unit.port);
    if (COM_SendUdpBroadcast(pIfName, port, port, text, (uint32_t)length) != 0) {
        fprintf(stderr, "%s: the announcement could not be sent\n", pIfName);
        return 1;
    }
    FactsText("interface", pIfName);
    FactsNumber("port", port, NULL);
    FactsText("model", unit.model);
    FactsText("name", unit.name);
    FactsText("hardware_address", unit.mac);
    return FactsEnd(0);
}
