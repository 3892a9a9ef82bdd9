// Base64: decodes the bytes as a text, and encodes and decodes them as bytes.

#include <string.h>

#include <algorithm>
#include <string>

#include "common/unit_info.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"

namespace {

using talvek::fuzz::Bytes;
using talvek::fuzz::Out;
using talvek::fuzz::Text;

// RFC 4648, section 4.
constexpr const char *kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string Encode(Bytes bytes) {
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t count = std::min<size_t>(3, bytes.size() - i);
        uint32_t group = 0;
        for (size_t k = 0; k < 3; ++k) {
            group = group << 8 | (k < count ? bytes[i + k] : 0u);
        }
        for (size_t k = 0; k < 4; ++k) {
            text += k <= count ? kAlphabet[group >> (18 - 6 * k) & 63] : '=';
        }
    }
    return text;
}

// The bytes of a text up to its first "=", without the characters that are not in the alphabet.
std::string Decode(const std::string &text) {
    std::string bytes;
    uint32_t group = 0;
    int bits = 0;
    for (const char c : text.substr(0, text.find('='))) {
        if (const char *pAt = strchr(kAlphabet, c); pAt != nullptr) {
            group = group << 6 | static_cast<uint32_t>(pAt - kAlphabet);
            bits += 6;
            if (bits >= 8) {
                bits -= 8;
                bytes += static_cast<char>(group >> bits & 0xFF);
            }
        }
    }
    return bytes;
}

}  // namespace

FUZZ_TARGET(base64) {
    const Bytes bytes = in.Rest();
    const Text text{bytes};
    Out out{text.length() * 3 / 4};
    const int count = COM_Base64Decode(out.bytes(), text.get());
    const std::string expected = Decode(text.str());
    REQUIRE(count == static_cast<int>(expected.size()));
    REQUIRE(memcmp(expected.data(), out.bytes(), expected.size()) == 0);
    REQUIRE(out.Untouched(0xA5, static_cast<size_t>(count)));

    // In place.
    const Text same{bytes};
    REQUIRE(COM_Base64Decode(same.get(), same.get()) == count);
    REQUIRE(memcmp(same.get(), out.bytes(), static_cast<size_t>(count)) == 0);

    const std::string encoded = Encode(bytes);
    Out back{encoded.size() * 3 / 4};
    REQUIRE(COM_Base64Decode(back.bytes(), encoded.c_str()) == int(bytes.size()));
    REQUIRE(bytes.empty() || memcmp(back.bytes(), bytes.data(), bytes.size()) == 0);
}
