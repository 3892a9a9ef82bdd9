// Content types, audio codecs, Digest challenges, H.264 start codes and SEI, Internet checksum.

#include "common/media.h"

#include <limits.h>
#include <string.h>

#include <algorithm>

#include "base/characters.h"
#include "base/path.h"
#include "common/internal/module_log.h"
#include "common/text.h"

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
    {"PCMU", COM_AUDIO_CODEC_PCMU},       {"PCMA", COM_AUDIO_CODEC_PCMA},
    {"G726-16", COM_AUDIO_CODEC_G726_16}, {"G726-24", COM_AUDIO_CODEC_G726_24},
    {"G726-32", COM_AUDIO_CODEC_G726_32}, {"G726-40", COM_AUDIO_CODEC_G726_40},
};

void StoreIfWanted(int *pOut, int value) {
    if (pOut != nullptr) {
        *pOut = value;
    }
}

// COM_GetStrInDoubleQuotes may write one byte more than its size, so the value passes through a
// larger text. The field keeps its last byte for the NUL.
template <size_t kSize>
void ReadQuoted(const char *pHeader, const char *pKey, char (&field)[kSize]) {
    char value[kSize + 1];
    value[0] = '?';
    const char *found = COM_GetStrInDoubleQuotes(pHeader, pKey, value, static_cast<int>(kSize));
    if (found == nullptr && value[0] != '\0') {
        return;  // missing; an empty value has emptied the text
    }
    const size_t length = strnlen(value, kSize - 1);
    memcpy(field, value, length);
    field[length] = '\0';
}

constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
constexpr int kStartCodeSize = sizeof kStartCode;
constexpr int kNalTypeMask = 0x1F;

// Reads a number of an SEI message at `at` and moves `at` past it. -1 when the bytes end inside it.
int ReadSeiNumber(const uint8_t *pBytes, int size, int &at) {
    int64_t value = 0;
    while (at < size) {
        const uint8_t byte = pBytes[at++];
        value += byte;
        if (byte != 0xFF) {
            return static_cast<int>(std::min<int64_t>(value, INT_MAX));
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

const char *COM_GetMimeType(const char *pFileName) {
    const char *type = kPlainText;
    const char *extension = pFileName != nullptr ? strrchr(pFileName, '.') : nullptr;
    if (extension != nullptr) {
        ++extension;
        for (const ContentType &row : kContentTypes) {
            if (strcmp(extension, row.extension) == 0) {
                type = row.type;
                break;
            }
        }
    }
    LOG_PLAIN("[%s][%s] => [%s]\n", talvek::Shown(pFileName), talvek::Shown(extension), type);
    return type;
}

int COM_GetAudioCodecId(const char *pName, int *pSecond, int *pId) {
    StoreIfWanted(pSecond, COM_AUDIO_CODEC_SECOND);
    int id = COM_AUDIO_CODEC_UNKNOWN;
    for (const AudioCodec &row : kAudioCodecs) {
        if (pName != nullptr && talvek::EqualsIgnoringCase(pName, row.name)) {
            id = row.id;
            break;
        }
    }
    StoreIfWanted(pId, id);
    return 0;
}

int COM_ParseDigestChallenge(const char *pHeaders, tDigestChallenge *pRec) {
    const char *header = COM_StrCaseStr(pHeaders, "WWW-Authenticate: Digest");
    if (header == nullptr || pRec == nullptr) {
        return -1;
    }
    ReadQuoted(header, "realm=", pRec->realm);
    ReadQuoted(header, "qop=", pRec->qop);
    ReadQuoted(header, "nonce=", pRec->nonce);
    ReadQuoted(header, "opaque=", pRec->opaque);
    return 0;
}

int COM_FindStartCode(const void *pBuf, int size, int *pNalType) {
    if (pBuf == nullptr || size <= kStartCodeSize) {
        return -1;
    }
    // At least one byte must follow the start code.
    const auto *bytes = static_cast<const uint8_t *>(pBuf);
    const void *found = memmem(bytes, static_cast<size_t>(size - 1), kStartCode, sizeof kStartCode);
    if (found == nullptr) {
        return -1;
    }
    const auto *code = static_cast<const uint8_t *>(found);
    StoreIfWanted(pNalType, code[kStartCodeSize] & kNalTypeMask);
    return static_cast<int>(code - bytes);
}

int COM_FindSeiPayload(const void *pBuf, int size, int *pPayloadType, int *pPayloadSize) {
    const auto *bytes = static_cast<const uint8_t *>(pBuf);
    int offset = 0;
    for (;;) {
        int type = 0;
        const int found =
            bytes != nullptr ? COM_FindStartCode(bytes + offset, size - offset, &type) : -1;
        if (found < 0) {
            return -1;
        }
        offset += found;
        if (type == COM_NAL_TYPE_SEI) {
            break;
        }
        offset += kStartCodeSize;
        if (size - offset <= kStartCodeSize) {
            return -1;
        }
    }
    int at = offset + kStartCodeSize + 1;
    const int payloadType = ReadSeiNumber(bytes, size, at);
    const int payloadSize = ReadSeiNumber(bytes, size, at);
    if (payloadType < 0 || payloadSize < 0) {
        return -1;
    }
    StoreIfWanted(pPayloadType, payloadType);
    StoreIfWanted(pPayloadSize, payloadSize);
    return offset;
}

uint16_t COM_CheckSum16(const void *pData, int size) {
    const auto *at = static_cast<const uint8_t *>(pData);
    size_t left = pData != nullptr && size > 0 ? static_cast<size_t>(size) : 0;
    // One's complement sums may be taken over wider words and folded at the end (RFC 1071, section
    // 2).
    uint64_t sum = 0;
    for (; left >= sizeof(uint32_t); left -= sizeof(uint32_t), at += sizeof(uint32_t)) {
        sum += LoadWord<uint32_t>(at);
    }
    if (left >= sizeof(uint16_t)) {
        sum += LoadWord<uint16_t>(at);
        at += sizeof(uint16_t);
        left -= sizeof(uint16_t);
    }
    if (left > 0) {
        const uint8_t last[] = {*at, 0};
        sum += LoadWord<uint16_t>(last);
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}
