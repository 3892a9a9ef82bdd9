/* Shows the settings of a network interface.
 *
 *   net_facts          of the interface of the default route, or eth0 without one
 *   net_facts wlan0
 *
 * Exits with 1 when there is no such interface.
 */

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <talvek/common/COMMON.h>
#include <unistd.h>

#include "facts.h"

static const struct {
    const char *pFact;
    uint32_t flag;
} kFacts[] = {
    {"hardware_address", COM_NET_MAC_COLON}, {"address", COM_NET_IP_TEXT},
    {"netmask", COM_NET_NETMASK_TEXT},       {"broadcast", COM_NET_BROADCAST_TEXT},
    {"gateway", COM_NET_GATEWAY_TEXT},       {"name_server_1", COM_NET_DNS1_TEXT},
    {"name_server_2", COM_NET_DNS2_TEXT},
};

int main(int argc, char *argv[]) {
    while (FactsOption(argc, argv, "", "[interface]") != -1) {
    }
    if (argc > optind + 1) {
        FactsWrongUse();
    }

    char name[COM_NET_IF_NAME_SIZE] = "eth0";
    if (argc > optind) {
        snprintf(name, sizeof name, "%s", argv[optind]);
    } else {
        COM_GetDefaultRoute(name); /* without a default route the name stays */
    }
    int32_t mtu = 0;
    if (COM_GetNetInfo(COM_NET_MTU, name, &mtu) != 0) {
        fprintf(stderr, "%s: no such interface\n", name);
        return 1;
    }

    FactsText("interface", name);
    FactsNumber("mtu", mtu, "bytes");
    for (size_t i = 0; i < sizeof kFacts / sizeof kFacts[0]; ++i) {
        char text[COM_NET_MAC_COLON_SIZE]; /* holds every form */
        const int result = COM_GetNetInfo(kFacts[i].flag, name, text);
        FactsText(kFacts[i].pFact, result == 0 ? text : NULL);
    }
    FactsNumber("packets_received", COM_GetRxPackets(name), NULL);
    return FactsEnd(0);
}
