// Content types, audio codecs, Digest challenges, H.264 start codes and SEI, Internet checksum.

#include "common/media.h"

#include <limits.h>
#include <string.h>

#include "base/characters.h"
#include "common/internal/module_log.h"
#include "common/text.h"

namespace talvek {
namespace {

struct ContentType {
    const char *extension;
    const char *type;
};

constexpr char kPlainText[] = "text/plain";

constexpr ContentType kContentTypes[] = {
    {"avi", "video/x-msvideo"}, {"rpt", "application/xml"}, {"txt", kPlainText},
    {"log", kPlainText},        {"jpg", "image/jpeg"},      {"jpe", "image/jpeg"},
    {"jpeg", "image/jpeg"},     {"gif", "image/gif"},       {"bmp", "image/x-ms-bmp"},
    {"pdf", "application/pdf"}, {"rar", "application/rar"}, {"xml", "application/xml"},
    {"zip", "application/zip"}, {"mpeg", "video/mpeg"},     {"mpg", "video/mpeg"},
    {"mpe", "video/mpeg"},      {"mp4", "video/mp4"},
};

struct AudioCodec {
    const char *name;
    int id;
};

constexpr AudioCodec kAudioCodecs[] = {
    {"PCMU", 7},         {"PCMA", 6},         {"G726-16", 0x4000},
    {"G726-24", 0x4001}, {"G726-32", 0x4002}, {"G726-40", 0x4003},
};

void Store(int *pOut, int value) {
    if (pOut != nullptr) {
        *pOut = value;
    }
}

// A quoted value is cut out with one byte more than the size told, so it passes through a text of
// that size; the field keeps its last byte for the NUL.
template <size_t kSize>
void TakeQuoted(const char *pHeader, const char *pKey, char (&field)[kSize]) {
    char value[kSize + 1];
    value[0] = '?';
    const char *found = COM_GetStrInDoubleQuotes(pHeader, pKey, value, static_cast<int>(kSize));
    if (found == nullptr && value[0] != '\0') {
        return;  // not there, whereas an empty value has emptied the text
    }
    const size_t length = strnlen(value, kSize - 1);
    memcpy(field, value, length);
    field[length] = '\0';
}

constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
constexpr int kStartCodeSize = sizeof kStartCode;
constexpr int kNalTypeMask = 0x1F;
constexpr int kNalTypeSei = 6;

// A number of an SEI message, from `at` on, which is moved behind it. -1 when the bytes end within.
int ReadSeiNumber(const uint8_t *pBytes, int len, int &at) {
    int64_t value = 0;
    while (at < len) {
        const uint8_t byte = pBytes[at++];
        value += byte;
        if (byte != 0xFF) {
            return value < INT_MAX ? static_cast<int>(value) : INT_MAX;
        }
    }
    return -1;
}

template <typename Word>
Word LoadWord(const uint8_t *pAt) {
    Word word;
    memcpy(&word, pAt, sizeof word);
    return word;
}

}  // namespace
}  // namespace talvek

const char *COM_GetMimeType(const char *pFileName) {
    const char *type = talvek::kPlainText;
    const char *extension = pFileName != nullptr ? strrchr(pFileName, '.') : nullptr;
    if (extension != nullptr) {
        ++extension;
        for (const talvek::ContentType &row : talvek::kContentTypes) {
            if (strcmp(extension, row.extension) == 0) {
                type = row.type;
                break;
            }
        }
    }
    LOG_PLAIN("[%s][%s] => [%s]\n", pFileName != nullptr ? pFileName : "(null)",
              extension != nullptr ? extension : "(null)", type);
    return type;
}

int COM_GetAudioCodecId(const char *pName, int *pSecond, int *pId) {
    // Every codec is told with an 8. Held by GetAudioCodecId.TellsAnEightForEveryName.
    talvek::Store(pSecond, 8);
    int id = 0;
    for (const talvek::AudioCodec &row : talvek::kAudioCodecs) {
        if (pName != nullptr && talvek::EqualsIgnoringCase(pName, row.name)) {
            id = row.id;
            break;
        }
    }
    talvek::Store(pId, id);
    return 0;
}

int COM_ParseDigestChallenge(const char *pHeaders, tDigestChallenge *pRec) {
    const char *header = COM_StrCaseStr(pHeaders, "WWW-Authenticate: Digest");
    if (header == nullptr || pRec == nullptr) {
        return -1;
    }
    talvek::TakeQuoted(header, "realm=", pRec->realm);
    talvek::TakeQuoted(header, "qop=", pRec->qop);
    talvek::TakeQuoted(header, "nonce=", pRec->nonce);
    talvek::TakeQuoted(header, "opaque=", pRec->opaque);
    return 0;
}

int COM_FindStartCode(const void *pBuf, int len, int *pNalType) {
    if (pBuf == nullptr || len <= talvek::kStartCodeSize) {
        return -1;
    }
    // The last byte can only be a unit's header.
    const auto *bytes = static_cast<const uint8_t *>(pBuf);
    const void *found =
        memmem(bytes, static_cast<size_t>(len - 1), talvek::kStartCode, sizeof talvek::kStartCode);
    if (found == nullptr) {
        return -1;
    }
    const auto *code = static_cast<const uint8_t *>(found);
    talvek::Store(pNalType, code[talvek::kStartCodeSize] & talvek::kNalTypeMask);
    return static_cast<int>(code - bytes);
}

int COM_FindSeiPayload(const void *pBuf, int len, int *pPayloadType, int *pPayloadSize) {
    const auto *bytes = static_cast<const uint8_t *>(pBuf);
    int offset = 0;
    for (;;) {
        int type = 0;
        const int found =
            bytes != nullptr ? COM_FindStartCode(bytes + offset, len - offset, &type) : -1;
        if (found < 0) {
            return -1;
        }
        offset += found;
        if (type == talvek::kNalTypeSei) {
            break;
        }
        offset += talvek::kStartCodeSize;
        if (len - offset <= talvek::kStartCodeSize) {
            return -1;
        }
    }
    int at = offset + talvek::kStartCodeSize + 1;
    const int type = talvek::ReadSeiNumber(bytes, len, at);
    const int size = talvek::ReadSeiNumber(bytes, len, at);
    if (type < 0 || size < 0) {
        return -1;
    }
    talvek::Store(pPayloadType, type);
    talvek::Store(pPayloadSize, size);
    return offset;
}

uint16_t COM_CheckSum16(const void *pData, int len) {
    const auto *at = static_cast<const uint8_t *>(pData);
    size_t left = pData != nullptr && len > 0 ? static_cast<size_t>(len) : 0;
    // 32-bit words carry two 16-bit ones, whose sum is folded together at the end: one's complement
    // addition may be done in any width (RFC 1071, section 2).
    uint64_t sum = 0;
    for (; left >= sizeof(uint32_t); left -= sizeof(uint32_t), at += sizeof(uint32_t)) {
        sum += talvek::LoadWord<uint32_t>(at);
    }
    if (left >= sizeof(uint16_t)) {
        sum += talvek::LoadWord<uint16_t>(at);
        at += sizeof(uint16_t);
        left -= sizeof(uint16_t);
    }
    if (left > 0) {
        const uint8_t last[] = {*at, 0};
        sum += talvek::LoadWord<uint16_t>(last);
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}
