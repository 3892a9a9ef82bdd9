// Facts about IPv4 interfaces, from the kernel's interface requests and text tables.

#include "common/net_info.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/cancel_guard.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "base/unique_stream.h"
#include "common/internal/interface_name.h"
#include "common/internal/module_log.h"

namespace {

using talvek::CancelGuard;
using talvek::OpenStream;
using talvek::Shown;
using talvek::UniqueFd;
using talvek::UniqueFile;

constexpr const char *kArpTable = "/proc/net/arp";
constexpr const char *kRouteTable = "/proc/net/route";
constexpr const char *kResolvConf = "/etc/resolv.conf";
constexpr const char *kBlanks = " \t\r\n";

constexpr size_t kTableLine = 256;
constexpr size_t kResolvLine = 160;

static_assert(COM_NET_IF_NAME_SIZE == IFNAMSIZ);
static_assert(COM_NET_MAC_BYTES_SIZE == ETH_ALEN);

enum class MacForm { kUpperHex, kLowerHex, kColon, kBytes };

// Every hardware-address form ends with the address's last byte.
struct MacRow {
    uint32_t flag;
    MacForm form;
    size_t firstByte;
};

constexpr MacRow kInterfaceMacRows[] = {
    {COM_NET_MAC_HEX, MacForm::kUpperHex, 0},       {COM_NET_MAC_HEX_LOWER, MacForm::kLowerHex, 0},
    {COM_NET_MAC_HEX_LAST4, MacForm::kUpperHex, 2}, {COM_NET_MAC_HEX_LAST3, MacForm::kUpperHex, 3},
    {COM_NET_MAC_COLON, MacForm::kColon, 0},        {COM_NET_MAC_COLON_LAST4, MacForm::kColon, 2},
    {COM_NET_MAC_COLON_LAST3, MacForm::kColon, 3},  {COM_NET_MAC_BYTES, MacForm::kBytes, 0},
    {COM_NET_MAC_BYTES_LAST4, MacForm::kBytes, 2},  {COM_NET_MAC_BYTES_LAST3, MacForm::kBytes, 3},
    {COM_NET_MAC_BYTES_LAST2, MacForm::kBytes, 4},
};

constexpr MacRow kNeighbourMacRows[] = {
    {COM_NET_ARP_HEX, MacForm::kUpperHex, 0},       {COM_NET_ARP_HEX_LOWER, MacForm::kLowerHex, 0},
    {COM_NET_ARP_HEX_LAST4, MacForm::kUpperHex, 2}, {COM_NET_ARP_HEX_LAST3, MacForm::kUpperHex, 3},
    {COM_NET_ARP_COLON, MacForm::kColon, 0},        {COM_NET_ARP_COLON_LAST4, MacForm::kColon, 2},
    {COM_NET_ARP_COLON_LAST3, MacForm::kColon, 3},  {COM_NET_ARP_BYTES_LAST3, MacForm::kBytes, 3},
    {COM_NET_ARP_BYTES_LAST2, MacForm::kBytes, 4},
};

enum class AddressForm { kText, kPadded, kBinary };

struct AddressRow {
    uint32_t flag;
    uint16_t request;
    AddressForm form;
};

constexpr AddressRow kAddressRows[] = {
    {COM_NET_IP_TEXT, SIOCGIFADDR, AddressForm::kText},
    {COM_NET_IP_PADDED, SIOCGIFADDR, AddressForm::kPadded},
    {COM_NET_IP_U32, SIOCGIFADDR, AddressForm::kBinary},
    {COM_NET_IP_RAW, SIOCGIFADDR, AddressForm::kBinary},
    {COM_NET_BROADCAST_TEXT, SIOCGIFBRDADDR, AddressForm::kText},
    {COM_NET_BROADCAST_PADDED, SIOCGIFBRDADDR, AddressForm::kPadded},
    {COM_NET_BROADCAST_U32, SIOCGIFBRDADDR, AddressForm::kBinary},
    {COM_NET_NETMASK_TEXT, SIOCGIFNETMASK, AddressForm::kText},
    {COM_NET_NETMASK_PADDED, SIOCGIFNETMASK, AddressForm::kPadded},
    {COM_NET_NETMASK_U32, SIOCGIFNETMASK, AddressForm::kBinary},
    {COM_NET_NETMASK_RAW, SIOCGIFNETMASK, AddressForm::kBinary},
};

struct GatewayRow {
    uint32_t flag;
    AddressForm form;
};

constexpr GatewayRow kGatewayRows[] = {
    {COM_NET_GATEWAY_TEXT, AddressForm::kText},
    {COM_NET_GATEWAY_PADDED, AddressForm::kPadded},
    {COM_NET_GATEWAY_U32, AddressForm::kBinary},
    {COM_NET_GATEWAY_RAW, AddressForm::kBinary},
};

struct NameServerRow {
    uint32_t flag;
    AddressForm form;
    int entry;  // counted from 1
};

constexpr NameServerRow kNameServerRows[] = {
    {COM_NET_DNS1_TEXT, AddressForm::kText, 1},  {COM_NET_DNS1_PADDED, AddressForm::kPadded, 1},
    {COM_NET_DNS2_TEXT, AddressForm::kText, 2},  {COM_NET_DNS2_PADDED, AddressForm::kPadded, 2},
    {COM_NET_DNS1_U32, AddressForm::kBinary, 1}, {COM_NET_DNS2_U32, AddressForm::kBinary, 2},
    {COM_NET_DNS1_RAW, AddressForm::kBinary, 1}, {COM_NET_DNS2_RAW, AddressForm::kBinary, 2},
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

void WriteMac(const MacRow &row, const uint8_t (&mac)[ETH_ALEN], void *pOut) {
    if (row.form == MacForm::kBytes) {
        memcpy(pOut, mac + row.firstByte, ETH_ALEN - row.firstByte);
        return;
    }
    const char *pDigits = row.form == MacForm::kLowerHex ? "0123456789abcdef" : "0123456789ABCDEF";
    char *pText = static_cast<char *>(pOut);
    for (size_t i = row.firstByte; i < ETH_ALEN; ++i) {
        if (row.form == MacForm::kColon && i > row.firstByte) {
            *pText++ = ':';
        }
        *pText++ = pDigits[mac[i] >> 4];
        *pText++ = pDigits[mac[i] & 0x0F];
    }
    *pText = '\0';
}

// In each form 0.0.0.0 is also the value after a failure.
void WriteAddress(AddressForm form, const in_addr &address, void *pOut) {
    uint8_t part[sizeof address];
    memcpy(part, &address, sizeof part);
    switch (form) {
        case AddressForm::kText:
            snprintf(static_cast<char *>(pOut), COM_NET_ADDRESS_TEXT_SIZE, "%d.%d.%d.%d", part[0],
                     part[1], part[2], part[3]);
            break;
        case AddressForm::kPadded:
            snprintf(static_cast<char *>(pOut), COM_NET_ADDRESS_TEXT_SIZE, "%03d.%03d.%03d.%03d",
                     part[0], part[1], part[2], part[3]);
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

// A name that is too long for an interface is refused here. Truncated to 15 characters, it could be
// the name of another interface.
int RequestFact(const UniqueFd &fd, uint16_t request, const char *pIfName, ifreq &answer) {
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

int ReadInterfaceMac(const char *pIfName, uint8_t (&mac)[ETH_ALEN]) {
    const UniqueFd fd = OpenRequestSocket("COM_GetMAC");
    if (!fd) {
        return -1;
    }
    ifreq answer;
    if (RequestFact(fd, SIOCGIFHWADDR, pIfName, answer) == -1) {
        LOG_ERRNO_AS("COM_GetMAC", "ioctl(SIOCGIFHWADDR) for %s got error : %s\n", Shown(pIfName));
        return -1;
    }
    memcpy(mac, answer.ifr_hwaddr.sa_data, sizeof mac);
    return 0;
}

// Splits a line at the delimiters; several in a row count as one. False when it has fewer columns
// than the array.
template <size_t kCount>
bool SplitColumns(char *pLine, const char *pDelimiters, const char *(&columns)[kCount]) {
    char *rest = nullptr;
    for (const char *&pColumn : columns) {
        pColumn = strtok_r(pLine, pDelimiters, &rest);
        if (pColumn == nullptr) {
            return false;
        }
        pLine = nullptr;
    }
    return true;
}

// Text such as 00:11:22:aa:bb:cc: a number begins at every third character.
void ParseMac(const char *pText, uint8_t (&mac)[ETH_ALEN]) {
    const size_t length = strlen(pText);
    for (size_t i = 0; i < ETH_ALEN && i * 3 < length; ++i) {
        mac[i] = static_cast<uint8_t>(strtoull(pText + i * 3, nullptr, 16));
    }
}

void FindNeighbour(const char *pAddress, uint8_t (&mac)[ETH_ALEN]) {
    const UniqueFile table{OpenStream(kArpTable, "r")};
    if (!table) {
        LOG_ERRNO_AS("COM_GetArpMAC", "fopen(%s) fail : %s\n", kArpTable);
        return;
    }
    enum ArpColumn : size_t { kAddress, kHardwareType, kFlags, kHardwareAddress, kArpColumns };
    char line[kTableLine];
    while (fgets(line, sizeof line, table.get()) != nullptr) {
        const char *columns[kArpColumns];
        if (SplitColumns(line, kBlanks, columns) && strcmp(columns[kAddress], pAddress) == 0) {
            ParseMac(columns[kHardwareAddress], mac);
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
    if (RequestFact(fd, pRow->request, pIfName, answer) == -1) {
        // An interface without an address is an ordinary state.
        if (errno != EADDRNOTAVAIL) {
            LOG_ERRNO_AS("COM_SubGetNetInfo", "ioctl(%d:%s) error : %s\n", pRow->request,
                         Shown(pIfName));
        }
        return -1;
    }
    address = AddressOf(answer.ifr_addr);
    return 0;
}

struct RouteSearch {
    const char *function;    // the entry that logs
    const char *delimiters;  // between the columns
    const char *interface;   // NULL for any
};

struct Route {
    const char *interface;  // in the line that was split
    in_addr gateway;
};

// The kernel prints the four bytes of the address as a number in host byte order, so storing the
// number in memory gives network byte order again.
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

// Whether the line is a default route that has a gateway and leaves through the interface searched
// for.
bool ReadRoute(const RouteSearch &search, char *pLine, Route &route) {
    enum RouteColumn : size_t { kInterface, kDestination, kGateway, kMask = 7, kRouteColumns };
    constexpr const char *kAny = "00000000";
    const char *columns[kRouteColumns];
    if (!SplitColumns(pLine, search.delimiters, columns) ||
        strcmp(columns[kDestination], kAny) != 0 || strcmp(columns[kMask], kAny) != 0 ||
        (search.interface != nullptr && strcmp(columns[kInterface], search.interface) != 0)) {
        return false;
    }
    route.interface = columns[kInterface];
    return ReadGateway(search.function, columns[kGateway], route.gateway) &&
           route.gateway.s_addr != 0;
}

// The texts of `route` point into `line`.
bool FindRoute(const RouteSearch &search, char (&line)[kTableLine], Route &route) {
    const UniqueFile table{OpenStream(kRouteTable, "r")};
    if (!table) {
        LOG_ERRNO_AS(search.function, "fopen(%s) : %s\n", kRouteTable);
        return false;
    }
    while (fgets(line, sizeof line, table.get()) != nullptr) {
        if (ReadRoute(search, line, route)) {
            return true;
        }
    }
    return false;
}

// A default route onto a point-to-point link has no gateway; the peer is the gateway then.
int ReadPointToPointPeer(const char *pIfName, in_addr &peer) {
    const UniqueFd fd = OpenRequestSocket("COM_SubGetGateway");
    if (!fd) {
        return -1;
    }
    ifreq answer;
    if (RequestFact(fd, SIOCGIFDSTADDR, pIfName, answer) == -1) {
        LOG_ERRNO_AS("COM_SubGetGateway", "ioctl(SIOCGIFDSTADDR[%s]) error : %s\n", Shown(pIfName));
        return -1;
    }
    peer = AddressOf(answer.ifr_dstaddr);
    return 0;
}

struct ResolvFile {
    const char *saved;  // its existence marks the setting as saved
    const char *inUse;
};

constexpr ResolvFile kWan{"/mtd1/resolv.conf.wan", "/etc/resolv.conf.wan"};
constexpr ResolvFile kUplink{"/mtd1/resolv.conf.uplink", "/etc/resolv.conf.uplink"};

const char *ChooseResolvFile(const char *pIfName) {
    if (pIfName == nullptr) {
        return kResolvConf;
    }
    const ResolvFile &own = strcmp(pIfName, "eth0") == 0 ? kWan : kUplink;
    const bool usable = access(own.inUse, F_OK) == 0 && access(own.saved, F_OK) == 0;
    return usable ? own.inUse : kResolvConf;
}

// The word after "nameserver", or NULL when the line has none.
const char *NameServerIn(char *pLine) {
    constexpr const char *kKey = "nameserver";
    char *pKey = strstr(pLine, kKey);
    char *rest = nullptr;
    return pKey != nullptr ? strtok_r(pKey + strlen(kKey), kBlanks, &rest) : nullptr;
}

int ReadNameServer(const char *pIfName, int entry, in_addr &address) {
    const UniqueFile file{OpenStream(ChooseResolvFile(pIfName), "r")};
    if (!file) {
        // The message names the general file, whichever was chosen.
        // Tested by DnsServer.NamesTheGeneralFileInItsMessage.
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
    {COM_NET_MAC_HEX, COM_NET_MAC_BYTES_LAST2, COM_GetMAC},
    {COM_NET_ARP_HEX, COM_NET_ARP_BYTES_LAST2, COM_GetArpMAC},
    {COM_NET_IP_TEXT, COM_NET_NETMASK_RAW, COM_SubGetNetInfo},
    {COM_NET_GATEWAY_TEXT, COM_NET_GATEWAY_RAW, COM_SubGetGateway},
    {COM_NET_DNS1_TEXT, COM_NET_DNS2_RAW, COM_GetDnsServer},
    {COM_NET_MTU, COM_NET_MTU, COM_GetMTU},
};

}  // namespace

int COM_GetNetInfo(uint32_t flag, const char *pName, void *pOut) {
    const CancelGuard guard;
    if (pOut == nullptr) {
        return -1;
    }
    for (const Service &service : kServices) {
        if (flag < service.first || flag > service.last) {
            continue;
        }
        char route[IFNAMSIZ];
        return service.serve(flag, talvek::ResolveInterface(pName, route), pOut);
    }
    constexpr char kUnknown[COM_NET_UNKNOWN_SIZE] = "unknown";
    memcpy(pOut, kUnknown, sizeof kUnknown);
    LOG("flag(%d) not implemented yet.\n", static_cast<int>(flag));
    return -1;
}

int COM_GetMAC(uint32_t flag, const char *pIfName, void *pOut) {
    const CancelGuard guard;
    if (pOut == nullptr) {
        return -1;
    }
    const MacRow *pRow = FindRow(kInterfaceMacRows, flag);
    if (pRow == nullptr) {
        LogUnknownFlag(__func__, flag);
        return -1;
    }
    uint8_t mac[ETH_ALEN] = {};
    const int result = ReadInterfaceMac(pIfName, mac);
    WriteMac(*pRow, mac, pOut);
    return result;
}

// The result is -1 also for a neighbour that was found: callers read the output.
// Tested by ArpMac.ReturnsMinusOneInEveryCase.
int COM_GetArpMAC(uint32_t flag, const char *pAddress, void *pOut) {
    const CancelGuard guard;
    if (pOut == nullptr) {
        return -1;
    }
    const MacRow *pRow = FindRow(kNeighbourMacRows, flag);
    if (pRow == nullptr) {
        LogUnknownFlag(__func__, flag);
        return -1;
    }
    uint8_t mac[ETH_ALEN] = {};
    if (pAddress != nullptr) {
        FindNeighbour(pAddress, mac);
    }
    WriteMac(*pRow, mac, pOut);
    return -1;
}

int COM_SubGetNetInfo(uint32_t flag, const char *pIfName, void *pOut) {
    const CancelGuard guard;
    if (pOut == nullptr) {
        return -1;
    }
    const AddressRow *pRow = FindRow(kAddressRows, flag);
    in_addr address = {};
    const int result = ReadInterfaceAddress(flag, pRow, pIfName, address);
    WriteAddress(pRow != nullptr ? pRow->form : AddressForm::kBinary, address, pOut);
    return result;
}

int COM_SubGetGateway(uint32_t flag, const char *pIfName, void *pOut) {
    const CancelGuard guard;
    if (pOut == nullptr) {
        return -1;
    }
    const GatewayRow *pRow = FindRow(kGatewayRows, flag);
    if (pRow == nullptr) {
        LogUnknownFlag(__func__, flag);
        WriteAddress(AddressForm::kBinary, {}, pOut);
        return -1;
    }
    char line[kTableLine];
    Route route = {};
    int result = 0;
    if (!FindRoute({__func__, kBlanks, pIfName}, line, route)) {
        route.gateway = {};
        result = ReadPointToPointPeer(pIfName, route.gateway);
    }
    WriteAddress(pRow->form, route.gateway, pOut);
    return result;
}

int COM_GetDnsServer(uint32_t flag, const char *pIfName, void *pOut) {
    const CancelGuard guard;
    if (pOut == nullptr) {
        return -1;
    }
    const NameServerRow *pRow = FindRow(kNameServerRows, flag);
    if (pRow == nullptr) {
        LogUnknownFlag(__func__, flag);
        WriteAddress(AddressForm::kBinary, {}, pOut);
        return -1;
    }
    in_addr address = {};
    const int result = ReadNameServer(pIfName, pRow->entry, address);
    WriteAddress(pRow->form, address, pOut);
    return result;
}

int COM_GetMTU(uint32_t /*flag*/, const char *pIfName, void *pOut) {
    const CancelGuard guard;
    if (pOut == nullptr) {
        return -1;
    }
    int32_t mtu = 0;
    int result = -1;
    const UniqueFd fd = OpenRequestSocket(__func__);
    if (fd) {
        ifreq answer;
        result = RequestFact(fd, SIOCGIFMTU, pIfName, answer);
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
    const CancelGuard guard;
    if (pIfName == nullptr) {
        return -1;
    }
    char line[kTableLine];
    Route route;
    if (!FindRoute({__func__, "\t", nullptr}, line, route)) {
        return -1;
    }
    snprintf(pIfName, IFNAMSIZ, "%s", route.interface);
    return 0;
}
