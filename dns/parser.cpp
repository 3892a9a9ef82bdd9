// What the resolver reads out of a response. Nothing here trusts a count or an offset of a
// response: whatever stands outside the bytes received reads as zero.

#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "base/byte_reader.h"
#include "dns/DNS.h"
#include "dns/internal/module_log.h"

namespace {

using talvek::BigEndianReader;

// The counts of the header (RFC 1035, 4.1.1) are read by their low bytes.
constexpr size_t kAnswerCount = 7;
constexpr size_t kAuthorityCount = 9;
constexpr size_t kAdditionalCount = 11;

// An A record whose owner is a compression pointer: pointer 2, TYPE 2, CLASS 2, TTL 4, RDLENGTH 2,
// address 4.
constexpr int kRecordSize = 16;
constexpr size_t kRecordAddress = 12;

constexpr size_t kMinResponseA = 18;
constexpr size_t kFirstAddress = 17;

constexpr int kMaxRecords = 255;  // of the additional section, by a count of one byte

constexpr uint8_t kPointer = 192;
constexpr uint8_t kMaxLabelLength = 29;
// A name that ends follows a pointer to each of the 256 targets once at the most.
constexpr int kMaxPointers = 256;

BigEndianReader Received(const uint8_t *pResponse, int length) {
    return BigEndianReader{pResponse, length > 0 ? static_cast<size_t>(length) : 0};
}

// The position behind the first RDLENGTH of 4, or 0.
size_t FindFirstAddress(const uint8_t *pResponse, size_t length) {
    for (size_t at = kFirstAddress; at < length; ++at) {
        if (pResponse[at - 2] == 0 && pResponse[at - 1] == 4) {
            return at;
        }
    }
    return 0;
}

// Four bytes in network order; those behind the end are 0.
uint32_t AddressAt(const uint8_t *pResponse, size_t length, size_t at) {
    uint32_t addr = 0;
    if (at < length) {
        memcpy(&addr, pResponse + at, std::min(sizeof addr, length - at));
    }
    return addr;
}

// Text that is cut where its room ends.
class CutText {
  public:
    CutText(char *pText, size_t size) : text_(pText), size_(size) {}
    bool Put(char c) {
        if (used_ + 1 >= size_) {
            return false;
        }
        text_[used_++] = c;
        return true;
    }
    int Close() {
        text_[used_] = '\0';
        return static_cast<int>(used_);
    }

  private:
    char *text_;
    size_t size_;
    size_t used_ = 0;
};

// Whether the name came to its end, "," included.
bool Expand(BigEndianReader &response, size_t at, CutText &text) {
    int pointers = 0;
    while (response.Has(at, 1)) {
        const uint8_t byte = response.U8(at);
        if (byte == 0) {
            return text.Put(',');
        }
        if (byte >= kPointer) {
            // The low byte alone is the target: one beyond offset 255 is misread.
            // Held by ExpandPointer.FollowsTheSecondByteOfAPointerAlone.
            if (!response.Has(at + 1, 1) || ++pointers > kMaxPointers) {
                return false;
            }
            at = response.U8(at + 1);
            continue;
        }
        // Lengths of 30 and more pass as characters.
        // Held by ExpandPointer.TakesLengthsOf30AndMoreForCharacters.
        if (!text.Put(byte > kMaxLabelLength ? static_cast<char>(byte) : '.')) {
            return false;
        }
        ++at;
    }
    return false;
}

}  // namespace

int DNS_ParserA(const uint8_t *pResponse, int length, tDnsAddrEntry *pResult) {
    BigEndianReader response = Received(pResponse, length);
    if (pResult == nullptr || response.size() < kMinResponseA) {
        return -1;
    }
    const int count = std::min<int>(response.U8(kAnswerCount), DNS_MAX_ENTRIES);
    size_t at = FindFirstAddress(pResponse, response.size());
    if (count == 0 || at == 0) {
        return -1;
    }
    tDnsAddrEntry entries[DNS_MAX_ENTRIES] = {};
    for (int i = 0; i < count && at < response.size(); ++i) {
        tDnsAddrEntry &entry = entries[i];
        entry.addr = AddressAt(pResponse, response.size(), at);
        if (entry.addr == 0) {
            break;  // without a step the others would read the same zero
        }
        entry.valid = 1;
        entry.type = DNS_TYPE_A;
        at += kRecordSize;
    }
    memcpy(pResult, entries, static_cast<size_t>(count) * sizeof *pResult);
    return 0;
}

int DNS_ParserMX(const uint8_t *pResponse, int length, tDnsAddrEntry *pResult) {
    BigEndianReader response = Received(pResponse, length);
    const int additional = response.U8(kAdditionalCount);
    if (pResult == nullptr || additional == 0) {
        return -1;
    }
    // The name servers of the authority section have their addresses behind the exchangers'.
    const int count = std::max(additional - response.U8(kAuthorityCount), 1);
    const int start = length - kRecordSize * additional;
    if (start < 1) {
        LOG("Packet Size error!\n");
        return -1;
    }
    tDnsAddrEntry entries[kMaxRecords];
    const uint8_t *pRecord = pResponse + start;
    for (int i = 0; i < count; ++i, pRecord += kRecordSize) {
        tDnsAddrEntry &entry = entries[i];
        entry.valid = 1;
        entry.name_ofs = pRecord[1];
        // The preference stands right before the exchanger's name in its MX answer.
        entry.preference =
            entry.name_ofs > 0 ? response.U8(static_cast<size_t>(entry.name_ofs) - 1) : uint8_t{0};
        entry.type = DNS_TYPE_MX;
        memcpy(&entry.addr, pRecord + kRecordAddress, sizeof entry.addr);
    }
    qsort(entries, static_cast<size_t>(count), sizeof entries[0], DNS_CmpPreference);
    memcpy(pResult, entries,
           static_cast<size_t>(std::min(count, DNS_MAX_ENTRIES)) * sizeof entries[0]);
    return 0;
}

int DNS_CheckMXAnswer(const uint8_t *pResponse, int length, int /*queryLength*/) {
    return Received(pResponse, length).U8(kAnswerCount) != 0 ? 0 : -1;
}

int DNS_ExpandPointer(const uint8_t *pResponse, int length, int offset, char *pText, int size) {
    if (pText == nullptr || size <= 0) {
        return -1;
    }
    BigEndianReader response = Received(pResponse, length);
    CutText text{pText, static_cast<size_t>(size)};
    const bool whole = offset >= 0 && Expand(response, static_cast<size_t>(offset), text);
    const int count = text.Close();
    return whole ? count : -1;
}

int DNS_CmpPreference(const void *pFirst, const void *pSecond) {
    if (pFirst == nullptr || pSecond == nullptr) {
        return 0;
    }
    return static_cast<const tDnsAddrEntry *>(pFirst)->preference -
           static_cast<const tDnsAddrEntry *>(pSecond)->preference;
}
