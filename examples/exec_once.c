/* Has the service run a command and reports its exit status. The command runs with the rights of
 * the daemon and in this program's environment; its output goes to the daemon's.
 *
 *   exec_once 'mount /dev/sdb1 /mnt'          through the default socket
 *   exec_once -s /run/export.sock 'exit 7'    through another one
 *
 * Exits with 0 if the command did, else with 1.
 */

#include <talvek/service/TALVEK.h>
#include <unistd.h>

#include "facts.h"

int main(int argc, char *argv[]) {
    const char *pSocket = TALVEK_SOCKET_PATH;
    while (FactsOption(argc, argv, "s:", "[-s socket] <command>") != -1) {
        pSocket = optarg;
    }
    if (argc != optind + 1) {
        FactsWrongUse();
    }

    const int status = TALVEK_Client(pSocket, argv[optind]);
    FactsText("command", argv[optind]);
    FactsNumber("status", status, NULL);
    switch (status) {
        case 0:
            FactsText("meaning", "success");
            break;
        case -1:
            FactsText("meaning", "killed, or no daemon was reached");
            break;
        case TALVEK_NO_RESULT:
            /* The command may also have ended with this number itself. */
            FactsText("meaning", "failure, or the exchange ended without a result");
            break;
        default:
            FactsText("meaning", "failure");
    }
    return FactsEnd(status == 0 ? 0 : 1);
}
