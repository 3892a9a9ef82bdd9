// Values taken out of a text: 1 byte for the size of the caller's buffer, a line with the key, then
// the text.

#include <stdlib.h>
#include <string.h>

#include <string>

#include "common/media.h"
#include "common/text.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"

namespace {

using talvek::fuzz::Out;
using talvek::fuzz::Text;

using GetValue = const char *(*)(const char *, const char *, char *, int);

bool Within(const char *pPlace, const Text &text) {
    return pPlace >= text.get() && pPlace <= text.get() + text.length();
}

// `extra` is what the buffer has beyond `size`.
void Get(GetValue get, const Text &text, const Text &key, size_t size, size_t extra) {
    Out out{size + extra};
    if (out.size() > 0) {
        out.text()[0] = '\0';
    }
    const char *pPlace = get(text.get(), key.get(), out.text(), static_cast<int>(size));
    if (pPlace == nullptr) {
        REQUIRE(out.size() == 0 || (out.text()[0] == '\0' && out.Untouched(0xA5, 1)));
    } else {
        REQUIRE(Within(pPlace, text) && out.IsText());
        REQUIRE(strstr(text.get(), out.text()) != nullptr);
    }
}

void TakeLines(const Text &text, const Text &key) {
    char *line = nullptr;
    const char *pPlace = COM_GetLineAfterKey(text.get(), key.get(), &line);
    REQUIRE((pPlace != nullptr) == (line != nullptr));
    REQUIRE(line == nullptr || strncmp(pPlace, line, strlen(line)) == 0);
    const Text cut{{reinterpret_cast<const uint8_t *>(text.get()), text.length()}};
    const char *pCut = COM_CutLineAfterKey(cut.get(), key.get());
    REQUIRE((pCut != nullptr) == (line != nullptr));
    REQUIRE(pCut == nullptr || strcmp(pCut, line) == 0);
    free(line);
}

void Replace(const Text &text, const Text &key) {
    constexpr const char *kNew = "<>";
    if (strstr(kNew, key.get()) != nullptr) {
        return;  // the call would not end
    }
    char *replaced = COM_ReplaceStr(strdup(text.get()), key.get(), kNew);
    std::string expected = text.str();
    size_t at = key.length() == 0 ? std::string::npos : expected.find(key.get());
    while (at != std::string::npos) {
        expected.replace(at, key.length(), kNew);
        at = expected.find(key.get(), at);
    }
    REQUIRE(expected == replaced);
    free(replaced);
}

void ReadNumbers(const Text &text) {
    int first = -1;
    int second = -1;
    const int count =
        COM_GetTwoNumbers(text.get(), static_cast<int>(text.length()), &first, &second);
    REQUIRE(count >= 0 && count <= 2);
    REQUIRE(count > 0 || first == -1);
    REQUIRE(count > 1 || second == -1);
}

}  // namespace

FUZZ_TARGET(text_values) {
    const size_t size = in.U8();
    const Text key{in.Line()};
    const talvek::fuzz::Bytes rest = in.Rest();
    const Text text{rest};
    const char *pPlace = COM_StrCaseStr(text.get(), key.get());
    REQUIRE(pPlace == strcasestr(text.get(), key.get()));
    Get(COM_GetStrInDoubleQuotes, text, key, size, 1);
    Get(COM_GetStrInSingleQuotes, text, key, size, 1);
    Get(COM_GetStrBeforeSpace, text, key, size, 0);
    Get(COM_GetStrBeforeEOL, text, key, size, 0);
    Get(COM_GetXMLData, text, key, size, 0);
    Get(COM_GetXMLAttribute, text, key, size, 0);
    TakeLines(text, key);
    Replace(text, key);
    ReadNumbers(text);
    tDigestChallenge challenge;
    memset(&challenge, 0xA5, sizeof challenge);
    for (char *pField : {challenge.realm, challenge.qop, challenge.nonce, challenge.opaque}) {
        *pField = '\0';
    }
    const int result = COM_ParseDigestChallenge(text.get(), &challenge);
    REQUIRE(result == 0 || result == -1);
    REQUIRE(memchr(challenge.realm, 0, sizeof challenge.realm) != nullptr);
    REQUIRE(memchr(challenge.qop, 0, sizeof challenge.qop) != nullptr);
    REQUIRE(memchr(challenge.nonce, 0, sizeof challenge.nonce) != nullptr);
    REQUIRE(memchr(challenge.opaque, 0, sizeof challenge.opaque) != nullptr);
    int second = 0;
    int id = 0;
    COM_GetAudioCodecId(key.get(), &second, &id);
    COM_GetMimeType(key.get());
}
