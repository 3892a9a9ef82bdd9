// Reading of responses. No count and no offset in them is trusted: a byte outside the bytes
// received reads as zero.

#include "dns/parser.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "base/byte_reader.h"
#include "dns/internal/module_log.h"

namespace {

using talvek::BigEndianReader;

// The low bytes of the counts in the header (RFC 1035, 4.1.1).
constexpr size_t kAnswerCount = 7;
constexpr size_t kAuthorityCount = 9;
constexpr size_t kAdditionalCount = 11;

// An A record whose owner is a compression pointer: pointer 2, TYPE 2, CLASS 2, TTL 4, RDLENGTH 2,
// address 4.
constexpr size_t kRecordSize = 16;
constexpr size_t kRecordAddress = 12;
constexpr size_t kAddressSize = 4;

constexpr size_t kMinResponseA = 18;
constexpr size_t kFirstAddress = 17;

constexpr int kMaxRecords = 255;  // in the additional section, by a count of one byte

constexpr uint8_t kPointer = 192;
constexpr uint8_t kMaxLabelLength = 29;
// A name that ends follows a pointer to each of the 256 targets at most once.
constexpr int kMaxPointers = 256;

BigEndianReader Received(const uint8_t *pResponse, int length) {
    return BigEndianReader{pResponse, length > 0 ? static_cast<size_t>(length) : 0};
}

// The offset after the first RDLENGTH of 4, or 0.
size_t FindFirstAddress(BigEndianReader &response) {
    for (size_t at = kFirstAddress; at < response.size(); ++at) {
        if (response.U16(at - 2) == kAddressSize) {
            return at;
        }
    }
    return 0;
}

// Four bytes in network order; those after the end of the response are 0.
uint32_t AddressAt(const BigEndianReader &response, size_t at) {
    const std::span<const uint8_t> bytes = response.Sub(at, kAddressSize);
    uint32_t addr = 0;
    memcpy(&addr, bytes.data(), bytes.size());
    return addr;
}

// Text that is cut at the end of its buffer.
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

// Appends the name at an offset. Returns whether the text has the whole name, with the ",".
bool Expand(BigEndianReader &response, size_t at, CutText &text) {
    int pointers = 0;
    while (response.Has(at, 1)) {
        const uint8_t byte = response.U8(at);
        if (byte == 0) {
            return text.Put(',');
        }
        if (byte >= kPointer) {
            // The low byte alone is the target; a target beyond offset 255 is misread.
            // Tested by ExpandPointer.FollowsTheSecondByteOfAPointer.
            if (!response.Has(at + 1, 1) || ++pointers > kMaxPointers) {
                return false;
            }
            at = response.U8(at + 1);
            continue;
        }
        // Lengths from 30 on are mistaken for characters.
        // Tested by ExpandPointer.ReadsLengthsFrom30OnAsCharacters.
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
        return DNS_NO_ANSWER;
    }
    const int count = std::min<int>(response.U8(kAnswerCount), DNS_MAX_ENTRIES);
    size_t at = FindFirstAddress(response);
    if (count == 0 || at == 0) {
        return DNS_NO_ANSWER;
    }
    tDnsAddrEntry entries[DNS_MAX_ENTRIES] = {};
    for (int i = 0; i < count && at < response.size(); ++i) {
        tDnsAddrEntry &entry = entries[i];
        entry.addr = AddressAt(response, at);
        if (entry.addr == 0) {
            break;  // the offset does not advance, so all further entries are zero too
        }
        entry.valid = 1;
        entry.type = DNS_TYPE_A;
        at += kRecordSize;
    }
    memcpy(pResult, entries, static_cast<size_t>(count) * sizeof *pResult);
    return DNS_OK;
}

int DNS_ParserMX(const uint8_t *pResponse, int length, tDnsAddrEntry *pResult) {
    BigEndianReader response = Received(pResponse, length);
    const int additional = response.U8(kAdditionalCount);
    if (pResult == nullptr || additional == 0) {
        return DNS_NO_ANSWER;
    }
    const int count = std::max(additional - response.U8(kAuthorityCount), 1);
    const size_t sectionSize = kRecordSize * static_cast<size_t>(additional);
    if (response.size() <= sectionSize) {
        LOG("Packet Size error!\n");
        return DNS_NO_ANSWER;
    }
    tDnsAddrEntry entries[kMaxRecords];
    size_t record = response.size() - sectionSize;
    for (int i = 0; i < count; ++i, record += kRecordSize) {
        tDnsAddrEntry &entry = entries[i];
        entry.valid = 1;
        entry.name_ofs = response.U8(record + 1);
        // The preference precedes the exchanger's name in its MX answer.
        entry.preference =
            entry.name_ofs > 0 ? response.U8(size_t{entry.name_ofs} - 1) : uint8_t{0};
        entry.type = DNS_TYPE_MX;
        entry.addr = AddressAt(response, record + kRecordAddress);
    }
    qsort(entries, static_cast<size_t>(count), sizeof entries[0], DNS_CmpPreference);
    memcpy(pResult, entries,
           static_cast<size_t>(std::min(count, DNS_MAX_ENTRIES)) * sizeof entries[0]);
    return DNS_OK;
}

int DNS_CheckMXAnswer(const uint8_t *pResponse, int length, int /*queryLength*/) {
    return Received(pResponse, length).U8(kAnswerCount) != 0 ? DNS_OK : DNS_NO_ANSWER;
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
