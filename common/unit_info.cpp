// The record of a unit, and helpers for units.

#include "common/unit_info.h"

#include <fcntl.h>
#include <limits.h>
#include <net/if.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <span>

#include "base/cancel_guard.h"
#include "base/unique_fd.h"
#include "common/file_content.h"
#include "common/internal/interface_name.h"
#include "common/internal/module_log.h"
#include "common/net_info.h"

static_assert(sizeof(tUnitNetInfo) == 328);
static_assert(offsetof(tUnitNetInfo, model) == 0);
static_assert(offsetof(tUnitNetInfo, proj) == 32);
static_assert(offsetof(tUnitNetInfo, name) == 64);
static_assert(offsetof(tUnitNetInfo, ip) == 128);
static_assert(offsetof(tUnitNetInfo, port) == 144);
static_assert(offsetof(tUnitNetInfo, netmask) == 152);
static_assert(offsetof(tUnitNetInfo, gateway) == 168);
static_assert(offsetof(tUnitNetInfo, dns) == 184);
static_assert(offsetof(tUnitNetInfo, mac) == 200);
static_assert(offsetof(tUnitNetInfo, dev) == 224);
static_assert(offsetof(tUnitNetInfo, note) == 240);
static_assert(offsetof(tUnitNetInfo, mtu) == 304);
static_assert(offsetof(tUnitNetInfo, if_info_num) == 308);
static_assert(offsetof(tUnitNetInfo, if_info) == 312);

namespace {

constexpr size_t kCountedDigits = 8;

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<uint8_t, 256> MakeBase64Values() {
    std::array<uint8_t, 256> values{};
    values.fill(COM_BASE64_NO_VALUE);
    for (uint8_t i = 0; kBase64Alphabet[i] != '\0'; ++i) {
        values[static_cast<uint8_t>(kBase64Alphabet[i])] = i;
    }
    return values;
}

constexpr std::array<uint8_t, 256> kBase64Values = MakeBase64Values();

// The field must be empty, since COM_GetFileContent appends.
template <size_t kSize>
int ReadField(const char *pPath, char (&field)[kSize]) {
    return COM_GetFileContent(pPath, field, static_cast<int>(kSize));
}

int ReadHostName(char (&name)[COM_UNIT_NAME_SIZE]) {
    const int result = gethostname(name, sizeof name);
    if (result != 0) {
        snprintf(name, sizeof name, "unknown");
    }
    return result;
}

// False for a text that could lead to a directory other than that of an interface.
bool IsInterfaceName(const char *pName) {
    return *pName != '\0' && strlen(pName) < IFNAMSIZ && strchr(pName, '/') == nullptr &&
           strcmp(pName, ".") != 0 && strcmp(pName, "..") != 0;
}

// The text of an address field that may lack its NUL.
struct AddressText {
    explicit AddressText(const void *pRecord) {
        memcpy(text, static_cast<const char *>(pRecord) + offsetof(tUnitNetInfo, ip),
               sizeof text - 1);
    }
    char text[sizeof(tUnitNetInfo::ip) + 1] = {};
};

int Difference(long long a, long long b) {
    return static_cast<int>(std::clamp<long long>(a - b, INT_MIN, INT_MAX));
}

}  // namespace

int COM_GetUnitNetInfo(tUnitNetInfo *pInfo, const char *pIfName) {
    const talvek::CancelGuard guard;
    if (pInfo == nullptr) {
        return -1;
    }
    // A separate record, because pIfName may be the `dev` of the caller's record.
    // Tested by UnitNetInfo.IsRefreshedByItsOwnInterface.
    tUnitNetInfo unit = {};
    // Resolved once, so that all fields are of one interface.
    char route[IFNAMSIZ];
    const char *pInterface = talvek::ResolveInterface(pIfName, route);
    int result = ReadField("/etc/Model", unit.model);
    result += ReadField("/etc/Proj", unit.proj);
    result += ReadHostName(unit.name);
    result += COM_GetNetInfo(COM_NET_IP_TEXT, pInterface, unit.ip);
    result += COM_GetPort(unit.port, sizeof unit.port);
    result += COM_GetNetInfo(COM_NET_NETMASK_TEXT, pInterface, unit.netmask);
    result += COM_GetNetInfo(COM_NET_GATEWAY_TEXT, pInterface, unit.gateway);
    result += COM_GetNetInfo(COM_NET_DNS1_TEXT, pInterface, unit.dns);
    result += COM_GetNetInfo(COM_NET_MAC_COLON, pInterface, unit.mac);
    if (pIfName != nullptr) {
        snprintf(unit.dev, sizeof unit.dev, "%s", pIfName);
    }
    // The note is optional. Tested by UnitNetInfo.IsCompleteWithoutANote.
    ReadField("/etc/Note", unit.note);
    result += COM_GetNetInfo(COM_NET_MTU, pInterface, &unit.mtu);
    memcpy(pInfo, &unit, offsetof(tUnitNetInfo, if_info_num));
    return result;
}

int COM_GetRxPackets(const char *pIfName) {
    const talvek::CancelGuard guard;
    if (pIfName == nullptr || !IsInterfaceName(pIfName)) {
        return 0;
    }
    char path[64];
    static_assert(sizeof "/sys/class/net//statistics/rx_packets" + IFNAMSIZ <= sizeof path);
    snprintf(path, sizeof path, "/sys/class/net/%s/statistics/rx_packets", pIfName);
    const talvek::UniqueFd fd{open(path, O_RDONLY | O_CLOEXEC)};
    if (!fd) {
        return 0;
    }
    // Of a larger count only the first 8 digits are read.
    // Tested by RxPackets.ReadsTheFirstEightDigits.
    char digits[kCountedDigits + 1] = {};
    if (read(fd.get(), digits, kCountedDigits) == -1) {
        return 0;
    }
    return static_cast<int>(strtol(digits, nullptr, 10));
}

int COM_Base64Value(char c) {
    return kBase64Values[static_cast<uint8_t>(c)];
}

int COM_Base64Decode(void *pDst, const char *pText) {
    if (pDst == nullptr || pText == nullptr) {
        return 0;
    }
    uint8_t *pOut = static_cast<uint8_t *>(pDst);
    int count = 0;
    uint32_t bits = 0;
    int pending = 0;  // bits not written yet
    for (; *pText != '\0' && *pText != '='; ++pText) {
        const int value = COM_Base64Value(*pText);
        if (value == COM_BASE64_NO_VALUE) {
            continue;
        }
        bits = bits << 6 | static_cast<uint32_t>(value);
        pending += 6;
        if (pending >= 8) {
            pending -= 8;
            pOut[count++] = static_cast<uint8_t>(bits >> pending);
        }
    }
    return count;
}

int COM_CountUtf8RowLength(const uint16_t *pArray) {
    if (pArray == nullptr) {
        LOG("Ooops! pArray = NULL");
        return 0;
    }
    int index = 0;
    while (pArray[index] != 0) {
        ++index;
    }
    while (pArray[index] == 0) {
        ++index;
    }
    return index;
}

int COM_SortUnitInfoViaIP(const void *pA, const void *pB) {
    if (pA == nullptr || pB == nullptr) {
        return 0;
    }
    const AddressText a{pA};
    const AddressText b{pB};
    const char *pAtA = a.text;
    const char *pAtB = b.text;
    for (int component = 0; component < 4; ++component) {
        const long long numberA = strtoll(pAtA, nullptr, 10);
        const long long numberB = strtoll(pAtB, nullptr, 10);
        if (numberA != numberB) {
            return Difference(numberA, numberB);
        }
        pAtA = strchr(pAtA, '.');
        pAtB = strchr(pAtB, '.');
        // A dot is also searched after the last component, so equal addresses are logged.
        // Tested by SortUnitInfoViaIP.LogsEqualAddresses.
        if (pAtA == nullptr || pAtB == nullptr) {
            LOG("Find nothing?!\n");
            return 0;
        }
        ++pAtA;
        ++pAtB;
    }
    return 0;
}

void COM_ShowAllUnitInfo(int count, const tUnitNetInfo *pInfo) {
    if (count <= 0 || pInfo == nullptr) {
        return;
    }
    // The precisions are the sizes of the fields, which may lack a NUL.
    int number = 0;
    for (const tUnitNetInfo &unit : std::span{pInfo, static_cast<size_t>(count)}) {
        LOG("[%d/%d]\n", ++number, count);
        LOG_PLAIN("(model, proj, name) = (%.32s, %.32s, %.64s)\n", unit.model, unit.proj,
                  unit.name);
        LOG_PLAIN("(ip, trigger_port, netmask) = (%.16s, %.8s, %.16s)\n", unit.ip, unit.port,
                  unit.netmask);
        LOG_PLAIN("(gateway, dns, mac) = (%.16s, %.16s, %.24s)\n", unit.gateway, unit.dns,
                  unit.mac);
        LOG_PLAIN("(dev, note, if_info) = (%.16s, %.64s, [%d][%.16s])\n", unit.dev, unit.note,
                  unit.if_info_num, unit.if_info);
    }
}
