// Answers about IPv4 interfaces, from the kernel's interface requests and its text tables.

#include "common/net_info.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/path.h"
#include "base/unique_fd.h"
#include "base/unique_stream.h"
#include "common/internal/interface_name.h"
#include "common/internal/module_log.h"

namespace talvek {
namespace {

constexpr const char *kArpTable = "/proc/net/arp";
constexpr const char *kRouteTable = "/proc/net/route";
constexpr const char *kResolvConf = "/etc/resolv.conf";
constexpr const char *kFallbackInterface = "eth0";
constexpr const char *kBlanks = " \t\r\n";

constexpr size_t kTableLine = 256;
constexpr size_t kResolvLine = 160;
constexpr size_t kMacSize = 6;
constexpr size_t kAddressTextSize = 16;

enum class MacForm { kUpperHex, kLowerHex, kColon, kBytes };

// Every hardware-address form ends with the address's last byte.
struct MacRow {
    uint32_t flag;
    MacForm form;
    size_t firstByte;
};

constexpr MacRow kInterfaceMacRows[] = {
    {0, MacForm::kUpperHex, 0}, {1, MacForm::kLowerHex, 0}, {2, MacForm::kUpperHex, 2},
    {3, MacForm::kUpperHex, 3}, {4, MacForm::kColon, 0},    {5, MacForm::kColon, 2},
    {6, MacForm::kColon, 3},    {7, MacForm::kBytes, 0},    {8, MacForm::kBytes, 2},
    {9, MacForm::kBytes, 3},    {10, MacForm::kBytes, 4},
};

// The byte forms begin with the last three bytes here; there is no form of all six.
// Held by ArpMac.AnswersEveryFlagInItsForm.
constexpr MacRow kNeighbourMacRows[] = {
    {11, MacForm::kUpperHex, 0}, {12, MacForm::kLowerHex, 0}, {13, MacForm::kUpperHex, 2},
    {14, MacForm::kUpperHex, 3}, {15, MacForm::kColon, 0},    {16, MacForm::kColon, 2},
    {17, MacForm::kColon, 3},    {18, MacForm::kBytes, 3},    {19, MacForm::kBytes, 4},
};

enum class AddressForm { kText, kPadded, kBinary };

struct AddressRow {
    uint32_t flag;
    uint32_t request;
    AddressForm form;
};

constexpr AddressRow kAddressRows[] = {
    {20, SIOCGIFADDR, AddressForm::kText},      {21, SIOCGIFADDR, AddressForm::kPadded},
    {22, SIOCGIFADDR, AddressForm::kBinary},    {23, SIOCGIFADDR, AddressForm::kBinary},
    {24, SIOCGIFBRDADDR, AddressForm::kText},   {25, SIOCGIFBRDADDR, AddressForm::kPadded},
    {26, SIOCGIFBRDADDR, AddressForm::kBinary}, {27, SIOCGIFNETMASK, AddressForm::kText},
    {28, SIOCGIFNETMASK, AddressForm::kPadded}, {29, SIOCGIFNETMASK, AddressForm::kBinary},
    {30, SIOCGIFNETMASK, AddressForm::kBinary},
};

struct GatewayRow {
    uint32_t flag;
    AddressForm form;
};

constexpr GatewayRow kGatewayRows[] = {
    {31, AddressForm::kText},
    {32, AddressForm::kPadded},
    {33, AddressForm::kBinary},
    {34, AddressForm::kBinary},
};

struct NameServerRow {
    uint32_t flag;
    AddressForm form;
    int entry;  // counted from 1
};

constexpr NameServerRow kNameServerRows[] = {
    {35, AddressForm::kText, 1},   {36, AddressForm::kPadded, 1}, {37, AddressForm::kText, 2},
    {38, AddressForm::kPadded, 2}, {39, AddressForm::kBinary, 1}, {40, AddressForm::kBinary, 2},
    {41, AddressForm::kBinary, 1}, {42, AddressForm::kBinary, 2},
};

template <typename Row, size_t kCount>
const Row *FindRow(const Row (&rows)[kCount], uint32_t flag) {
    for (const Row &row : rows) {
        if (row.flag == flag) {
            return &row;
        }
    }
    return nullptr;
}

void LogUnknownFlag(const char *pFunction, uint32_t flag) {
    LOG_AS(pFunction, "flag(%d) not implemented.\n", static_cast<int>(flag));
}

void WriteMac(const MacRow &row, const uint8_t (&mac)[kMacSize], void *pOut) {
    if (row.form == MacForm::kBytes) {
        memcpy(pOut, mac + row.firstByte, kMacSize - row.firstByte);
        return;
    }
    const char *pDigits = row.form == MacForm::kLowerHex ? "0123456789abcdef" : "0123456789ABCDEF";
    char *pText = static_cast<char *>(pOut);
    for (size_t i = row.firstByte; i < kMacSize; ++i) {
        if (row.form == MacForm::kColon && i > row.firstByte) {
            *pText++ = ':';
        }
        *pText++ = pDigits[mac[i] >> 4];
        *pText++ = pDigits[mac[i] & 0x0F];
    }
    *pText = '\0';
}

// The address 0.0.0.0 in each form is also what stands for a failure.
void WriteAddress(AddressForm form, const in_addr &address, void *pOut) {
    uint8_t part[sizeof address];
    memcpy(part, &address, sizeof part);
    switch (form) {
        case AddressForm::kText:
            snprintf(static_cast<char *>(pOut), kAddressTextSize, "%d.%d.%d.%d", part[0], part[1],
                     part[2], part[3]);
            break;
        case AddressForm::kPadded:
            snprintf(static_cast<char *>(pOut), kAddressTextSize, "%03d.%03d.%03d.%03d", part[0],
                     part[1], part[2], part[3]);
            break;
        case AddressForm::kBinary:
            memcpy(pOut, part, sizeof part);
            break;
    }
}

UniqueFd OpenRequestSocket(const char *pFunction) {
    UniqueFd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (!fd) {
        LOG_ERRNO_AS(pFunction, "socket() error : %s\n");
    }
    return fd;
}

// A name that no interface can have is refused here: cut to its first 15 characters it could be
// that of another interface.
int AskInterface(const UniqueFd &fd, unsigned long request, const char *pIfName, ifreq &answer) {
    answer = {};
    const size_t length = pIfName != nullptr ? strlen(pIfName) : 0;
    if (length == 0 || length >= sizeof answer.ifr_name) {
        errno = ENODEV;
        return -1;
    }
    memcpy(answer.ifr_name, pIfName, length);
    return ioctl(fd.get(), request, &answer);
}

in_addr AddressOf(const sockaddr &address) {
    sockaddr_in inet;
    static_assert(sizeof inet == sizeof address);
    memcpy(&inet, &address, sizeof inet);
    return inet.sin_addr;
}

int ReadInterfaceMac(const char *pIfName, uint8_t (&mac)[kMacSize]) {
    const UniqueFd fd = OpenRequestSocket("COM_GetMAC");
    if (!fd) {
        return -1;
    }
    ifreq answer;
    if (AskInterface(fd, SIOCGIFHWADDR, pIfName, answer) == -1) {
        LOG_ERRNO_AS("COM_GetMAC", "ioctl(SIOCGIFHWADDR) for %s got error : %s\n", Shown(pIfName));
        return -1;
    }
    memcpy(mac, answer.ifr_hwaddr.sa_data, sizeof mac);
    return 0;
}

// Text such as 00:11:22:aa:bb:cc: a number begins at every third character.
void ParseMac(const char *pText, uint8_t (&mac)[kMacSize]) {
    const size_t length = strlen(pText);
    for (size_t i = 0; i < kMacSize && i * 3 < length; ++i) {
        mac[i] = static_cast<uint8_t>(strtoull(pText + i * 3, nullptr, 16));
    }
}

void FindNeighbour(const char *pAddress, uint8_t (&mac)[kMacSize]) {
    const UniqueFile table{OpenStream(kArpTable, "r")};
    if (!table) {
        LOG_ERRNO_AS("COM_GetArpMAC", "fopen(%s) fail : %s\n", kArpTable);
        return;
    }
    // Columns: IP address, HW type, Flags, HW address, Mask, Device.
    char line[kTableLine];
    while (fgets(line, sizeof line, table.get()) != nullptr) {
        char *rest = nullptr;
        const char *pFound = strtok_r(line, kBlanks, &rest);
        if (pFound == nullptr || strcmp(pFound, pAddress) != 0) {
            continue;
        }
        strtok_r(nullptr, kBlanks, &rest);
        strtok_r(nullptr, kBlanks, &rest);
        const char *pMac = strtok_r(nullptr, kBlanks, &rest);
        if (pMac != nullptr) {
            ParseMac(pMac, mac);
            return;
        }
    }
}

int ReadInterfaceAddress(uint32_t flag, const AddressRow *pRow, const char *pIfName,
                         in_addr &address) {
    const UniqueFd fd = OpenRequestSocket("COM_SubGetNetInfo");
    if (!fd) {
        return -1;
    }
    if (pRow == nullptr) {
        LogUnknownFlag("COM_SubGetNetInfo", flag);
        return -1;
    }
    ifreq answer;
    if (AskInterface(fd, pRow->request, pIfName, answer) == -1) {
        // An interface that has no address yet is an everyday state.
        if (errno != EADDRNOTAVAIL) {
            LOG_ERRNO_AS("COM_SubGetNetInfo", "ioctl(%d:%s) error : %s\n",
                         static_cast<int>(pRow->request), Shown(pIfName));
        }
        return -1;
    }
    address = AddressOf(answer.ifr_addr);
    return 0;
}

// Who searches the routing table, and for what.
struct RouteSearch {
    const char *function;    // the entry that logs
    const char *delimiters;  // between the columns
    const char *interface;   // null for any
};

struct Route {
    const char *interface;  // in the line that was split
    in_addr gateway;
};

enum RouteColumn : size_t { kInterface, kDestination, kGateway, kMask = 7, kRouteColumns };

// The table shows the four bytes of the address as they lie in memory, read as a number; the same
// number stored is the address in network byte order.
bool ReadGateway(const char *pFunction, const char *pText, in_addr &gateway) {
    errno = 0;
    char *end = nullptr;
    const unsigned long long value = strtoull(pText, &end, 16);
    if (end == pText) {
        errno = EINVAL;
    } else if (value > UINT32_MAX) {
        errno = ERANGE;
    }
    if (errno != 0) {
        LOG_ERRNO_AS(pFunction, "strtoul() error : %s\n");
        return false;
    }
    gateway.s_addr = static_cast<in_addr_t>(value);
    return true;
}

// Whether the line is a default route with a gateway, as the search wants it.
bool TakeRoute(const RouteSearch &search, char *pLine, Route &route) {
    const char *columns[kRouteColumns];
    char *rest = nullptr;
    for (const char *&pColumn : columns) {
        pColumn = strtok_r(pLine, search.delimiters, &rest);
        if (pColumn == nullptr) {
            return false;
        }
        pLine = nullptr;
    }
    constexpr const char *kAny = "00000000";
    if (strcmp(columns[kDestination], kAny) != 0 || strcmp(columns[kMask], kAny) != 0 ||
        (search.interface != nullptr && strcmp(columns[kInterface], search.interface) != 0)) {
        return false;
    }
    route.interface = columns[kInterface];
    return ReadGateway(search.function, columns[kGateway], route.gateway) &&
           route.gateway.s_addr != 0;
}

// `line` holds the texts of the route that was found.
bool FindRoute(const RouteSearch &search, char (&line)[kTableLine], Route &route) {
    const UniqueFile table{OpenStream(kRouteTable, "r")};
    if (!table) {
        LOG_ERRNO_AS(search.function, "fopen(%s) : %s\n", kRouteTable);
        return false;
    }
    while (fgets(line, sizeof line, table.get()) != nullptr) {
        if (TakeRoute(search, line, route)) {
            return true;
        }
    }
    return false;
}

// A default route straight onto a point-to-point link has no gateway; the peer stands for it.
int ReadPeer(const char *pIfName, in_addr &peer) {
    const UniqueFd fd = OpenRequestSocket("COM_SubGetGateway");
    if (!fd) {
        return -1;
    }
    ifreq answer;
    if (AskInterface(fd, SIOCGIFDSTADDR, pIfName, answer) == -1) {
        LOG_ERRNO_AS("COM_SubGetGateway", "ioctl(SIOCGIFDSTADDR[%s]) error : %s\n", Shown(pIfName));
        return -1;
    }
    peer = AddressOf(answer.ifr_dstaddr);
    return 0;
}

struct ResolvFile {
    const char *kept;  // marks the setting as kept over a restart
    const char *inUse;
};

constexpr ResolvFile kWan{"/mtd1/resolv.conf.wan", "/etc/resolv.conf.wan"};
constexpr ResolvFile kUplink{"/mtd1/resolv.conf.uplink", "/etc/resolv.conf.uplink"};

const char *ChooseResolvFile(const char *pIfName) {
    if (pIfName == nullptr) {
        return kResolvConf;
    }
    const ResolvFile &own = strcmp(pIfName, "eth0") == 0 ? kWan : kUplink;
    const bool usable = access(own.inUse, F_OK) == 0 && access(own.kept, F_OK) == 0;
    return usable ? own.inUse : kResolvConf;
}

// The word behind "nameserver", or null when the line has none.
const char *NameServerIn(char *pLine) {
    constexpr const char *kKey = "nameserver";
    char *pKey = strstr(pLine, kKey);
    char *rest = nullptr;
    return pKey != nullptr ? strtok_r(pKey + strlen(kKey), kBlanks, &rest) : nullptr;
}

int ReadNameServer(const char *pIfName, int entry, in_addr &address) {
    const UniqueFile file{OpenStream(ChooseResolvFile(pIfName), "r")};
    if (!file) {
        // The message names the general file whichever was chosen.
        // Held by DnsServer.NamesTheGeneralFileInItsMessage.
        LOG_ERRNO_AS("COM_GetDnsServer", "fopen(%s) : %s\n", kResolvConf);
        return -1;
    }
    char line[kResolvLine];
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        const char *pServer = NameServerIn(line);
        if (pServer != nullptr && --entry == 0) {
            in_addr found;
            if (inet_aton(pServer, &found) == 0) {
                return -1;
            }
            address = found;
            return 0;
        }
    }
    return -1;
}

struct Service {
    uint32_t first;
    uint32_t last;
    int (*serve)(uint32_t flag, const char *pName, void *pOut);
};

constexpr Service kServices[] = {
    {0, 10, COM_GetMAC},         {11, 19, COM_GetArpMAC},    {20, 30, COM_SubGetNetInfo},
    {31, 34, COM_SubGetGateway}, {35, 42, COM_GetDnsServer}, {43, 43, COM_GetMTU},
};

}  // namespace

const char *MeantInterface(const char *pName, char (&route)[IFNAMSIZ]) {
    if (pName != nullptr && strcmp(pName, "auto") != 0) {
        return pName;
    }
    return COM_GetDefaultRoute(route) == 0 ? route : kFallbackInterface;
}

}  // namespace talvek

int COM_GetNetInfo(uint32_t flag, const char *pName, void *pOut) {
    if (pOut == nullptr) {
        return -1;
    }
    for (const talvek::Service &service : talvek::kServices) {
        if (flag < service.first || flag > service.last) {
            continue;
        }
        char route[IFNAMSIZ];
        return service.serve(flag, talvek::MeantInterface(pName, route), pOut);
    }
    constexpr char kUnknown[] = "unknown";
    memcpy(pOut, kUnknown, sizeof kUnknown);
    LOG("flag(%d) not implemented yet.\n", static_cast<int>(flag));
    return -1;
}

int COM_GetMAC(uint32_t flag, const char *pIfName, void *pOut) {
    if (pOut == nullptr) {
        return -1;
    }
    const talvek::MacRow *pRow = talvek::FindRow(talvek::kInterfaceMacRows, flag);
    if (pRow == nullptr) {
        talvek::LogUnknownFlag(__func__, flag);
        return -1;
    }
    uint8_t mac[talvek::kMacSize] = {};
    const int result = talvek::ReadInterfaceMac(pIfName, mac);
    talvek::WriteMac(*pRow, mac, pOut);
    return result;
}

// Callers read the output; the result tells nothing.
// Held by ArpMac.ReturnsMinusOneInEveryCase.
int COM_GetArpMAC(uint32_t flag, const char *pAddress, void *pOut) {
    if (pOut == nullptr) {
        return -1;
    }
    const talvek::MacRow *pRow = talvek::FindRow(talvek::kNeighbourMacRows, flag);
    if (pRow == nullptr) {
        talvek::LogUnknownFlag(__func__, flag);
        return -1;
    }
    uint8_t mac[talvek::kMacSize] = {};
    if (pAddress != nullptr) {
        talvek::FindNeighbour(pAddress, mac);
    }
    talvek::WriteMac(*pRow, mac, pOut);
    return -1;
}

int COM_SubGetNetInfo(uint32_t flag, const char *pIfName, void *pOut) {
    if (pOut == nullptr) {
        return -1;
    }
    const talvek::AddressRow *pRow = talvek::FindRow(talvek::kAddressRows, flag);
    in_addr address = {};
    const int result = talvek::ReadInterfaceAddress(flag, pRow, pIfName, address);
    talvek::WriteAddress(pRow != nullptr ? pRow->form : talvek::AddressForm::kBinary, address,
                         pOut);
    return result;
}

int COM_SubGetGateway(uint32_t flag, const char *pIfName, void *pOut) {
    if (pOut == nullptr) {
        return -1;
    }
    const talvek::GatewayRow *pRow = talvek::FindRow(talvek::kGatewayRows, flag);
    if (pRow == nullptr) {
        talvek::LogUnknownFlag(__func__, flag);
        talvek::WriteAddress(talvek::AddressForm::kBinary, {}, pOut);
        return -1;
    }
    char line[talvek::kTableLine];
    talvek::Route route = {};
    int result = 0;
    if (!talvek::FindRoute({__func__, talvek::kBlanks, pIfName}, line, route)) {
        route.gateway = {};
        result = talvek::ReadPeer(pIfName, route.gateway);
    }
    talvek::WriteAddress(pRow->form, route.gateway, pOut);
    return result;
}

int COM_GetDnsServer(uint32_t flag, const char *pIfName, void *pOut) {
    if (pOut == nullptr) {
        return -1;
    }
    const talvek::NameServerRow *pRow = talvek::FindRow(talvek::kNameServerRows, flag);
    if (pRow == nullptr) {
        talvek::LogUnknownFlag(__func__, flag);
        talvek::WriteAddress(talvek::AddressForm::kBinary, {}, pOut);
        return -1;
    }
    in_addr address = {};
    const int result = talvek::ReadNameServer(pIfName, pRow->entry, address);
    talvek::WriteAddress(pRow->form, address, pOut);
    return result;
}

int COM_GetMTU(uint32_t /*flag*/, const char *pIfName, void *pOut) {
    if (pOut == nullptr) {
        return -1;
    }
    int32_t mtu = 0;
    int result = -1;
    const talvek::UniqueFd fd = talvek::OpenRequestSocket(__func__);
    if (fd) {
        ifreq answer;
        result = talvek::AskInterface(fd, SIOCGIFMTU, pIfName, answer);
        if (result == -1) {
            LOG_ERRNO("ioctl() error : %s\n");
        } else {
            mtu = answer.ifr_mtu;
        }
    }
    memcpy(pOut, &mtu, sizeof mtu);
    return result;
}

int COM_GetDefaultRoute(char *pIfName) {
    if (pIfName == nullptr) {
        return -1;
    }
    char line[talvek::kTableLine];
    talvek::Route route;
    if (!talvek::FindRoute({__func__, "\t", nullptr}, line, route)) {
        return -1;
    }
    snprintf(pIfName, IFNAMSIZ, "%s", route.interface);
    return 0;
}
