// The unit's record, and helpers for lists of units.

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

namespace talvek {
namespace {

constexpr int kNoBase64Value = 64;
constexpr size_t kCountedDigits = 8;

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<uint8_t, 256> MakeBase64Values() {
    std::array<uint8_t, 256> values{};
    values.fill(kNoBase64Value);
    for (uint8_t i = 0; kBase64Alphabet[i] != '\0'; ++i) {
        values[static_cast<uint8_t>(kBase64Alphabet[i])] = i;
    }
    return values;
}

constexpr std::array<uint8_t, 256> kBase64Values = MakeBase64Values();

// The flags of COM_GetNetInfo that the record is made of.
enum NetFlag : uint32_t {
    kColonMac = 4,
    kAddressText = 20,
    kNetmaskText = 27,
    kGatewayText = 31,
    kFirstNameServerText = 35,
    kMtu = 43,
};

// COM_GetFileContent appends to what a buffer holds: the field must be empty.
template <size_t kSize>
int ReadField(const char *pPath, char (&field)[kSize]) {
    return COM_GetFileContent(pPath, field, static_cast<int>(kSize));
}

int ReadHostName(char (&name)[64]) {
    const int result = gethostname(name, sizeof name);
    if (result != 0) {
        snprintf(name, sizeof name, "unknown");
    }
    return result;
}

// Texts that lead elsewhere than to an interface's own directory are no names.
bool IsInterfaceName(const char *pName) {
    return *pName != '\0' && strlen(pName) < IFNAMSIZ && strchr(pName, '/') == nullptr &&
           strcmp(pName, ".") != 0 && strcmp(pName, "..") != 0;
}

// An address field as a text that ends even when the field has no NUL.
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
}  // namespace talvek

int COM_GetUnitNetInfo(tUnitNetInfo *pInfo, const char *pIfName) {
    if (pInfo == nullptr) {
        return -1;
    }
    // Filled apart from the caller's record, whose `dev` may be the name that is asked about.
    // Held by UnitNetInfo.IsRefreshedUnderItsOwnInterface.
    tUnitNetInfo unit = {};
    // Looked up once, so that the whole record is of one interface.
    char route[IFNAMSIZ];
    const char *pMeant = talvek::ResolveInterface(pIfName, route);
    int result = talvek::ReadField("/etc/Model", unit.model);
    result += talvek::ReadField("/etc/Proj", unit.proj);
    result += talvek::ReadHostName(unit.name);
    result += COM_GetNetInfo(talvek::kAddressText, pMeant, unit.ip);
    result += COM_GetPort(unit.port, sizeof unit.port);
    result += COM_GetNetInfo(talvek::kNetmaskText, pMeant, unit.netmask);
    result += COM_GetNetInfo(talvek::kGatewayText, pMeant, unit.gateway);
    result += COM_GetNetInfo(talvek::kFirstNameServerText, pMeant, unit.dns);
    result += COM_GetNetInfo(talvek::kColonMac, pMeant, unit.mac);
    if (pIfName != nullptr) {
        snprintf(unit.dev, sizeof unit.dev, "%s", pIfName);
    }
    // A unit without a note is complete. Held by UnitNetInfo.IsCompleteWithoutANote.
    talvek::ReadField("/etc/Note", unit.note);
    result += COM_GetNetInfo(talvek::kMtu, pMeant, &unit.mtu);
    memcpy(pInfo, &unit, offsetof(tUnitNetInfo, if_info_num));
    return result;
}

int COM_GetRxPackets(const char *pIfName) {
    if (pIfName == nullptr || !talvek::IsInterfaceName(pIfName)) {
        return 0;
    }
    char path[64];
    static_assert(sizeof "/sys/class/net//statistics/rx_packets" + IFNAMSIZ <= sizeof path);
    snprintf(path, sizeof path, "/sys/class/net/%s/statistics/rx_packets", pIfName);
    const talvek::UniqueFd fd{open(path, O_RDONLY | O_CLOEXEC)};
    if (!fd) {
        return 0;
    }
    // Larger counts are cut to their first 8 digits: whoever looks for activity compares for
    // change. Held by RxPackets.CountsInTheFirstEightDigits.
    char digits[talvek::kCountedDigits + 1] = {};
    if (read(fd.get(), digits, talvek::kCountedDigits) == -1) {
        return 0;
    }
    return static_cast<int>(strtol(digits, nullptr, 10));
}

int COM_Base64Value(char c) {
    return talvek::kBase64Values[static_cast<uint8_t>(c)];
}

int COM_Base64Decode(void *pDst, const char *pText) {
    if (pDst == nullptr || pText == nullptr) {
        return 0;
    }
    uint8_t *pOut = static_cast<uint8_t *>(pDst);
    int count = 0;
    uint32_t bits = 0;
    int held = 0;  // bits not written yet
    for (; *pText != '\0' && *pText != '='; ++pText) {
        const int value = COM_Base64Value(*pText);
        if (value == talvek::kNoBase64Value) {
            continue;
        }
        bits = bits << 6 | static_cast<uint32_t>(value);
        held += 6;
        if (held >= 8) {
            held -= 8;
            pOut[count++] = static_cast<uint8_t>(bits >> held);
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
    const talvek::AddressText a{pA};
    const talvek::AddressText b{pB};
    const char *pAtA = a.text;
    const char *pAtB = b.text;
    for (int component = 0; component < 4; ++component) {
        const long long numberA = strtoll(pAtA, nullptr, 10);
        const long long numberB = strtoll(pAtB, nullptr, 10);
        if (numberA != numberB) {
            return talvek::Difference(numberA, numberB);
        }
        pAtA = strchr(pAtA, '.');
        pAtB = strchr(pAtB, '.');
        // The search goes on behind the last component, so that equal addresses come by here too.
        // Held by SortUnitInfoViaIP.LogsEqualAddresses.
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
    // Precisions keep a field that has no NUL inside its width.
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
