// Escapes of quoted-printable text: decodes the bytes as a text; escapes and decodes them as bytes.

#include <stdio.h>
#include <string.h>

#include <string>

#include "common/io.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"

namespace {

// "=" and two hexadecimal digits are a byte; every other character is itself.
std::string Decode(const std::string &text) {
    std::string bytes;
    bytes.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const std::string digits = text[i] == '=' ? text.substr(i + 1, 2) : "";
        if (digits.size() == 2 &&
            digits.find_first_not_of("0123456789ABCDEFabcdef") == std::string::npos) {
            bytes += static_cast<char>(std::stoi(digits, nullptr, 16));
            i += 2;
        } else {
            bytes += text[i];
        }
    }
    return bytes;
}

}  // namespace

FUZZ_TARGET(hex_escape) {
    const talvek::fuzz::Bytes bytes = in.Rest();
    const talvek::fuzz::Text text{bytes};
    talvek::fuzz::Out out{text.length()};
    const int count = COM_DecodeHexEscape(out.text(), text.get());
    const std::string expected = Decode(text.str());
    REQUIRE(count == static_cast<int>(expected.size()));
    REQUIRE(memcmp(expected.data(), out.bytes(), expected.size()) == 0);
    REQUIRE(out.Untouched(0xA5, static_cast<size_t>(count)));
    const talvek::fuzz::Text same{bytes};
    REQUIRE(COM_DecodeHexEscape(same.get(), same.get()) == count);
    REQUIRE(memcmp(same.get(), out.bytes(), static_cast<size_t>(count)) == 0);

    constexpr const char *kDigits = "0123456789ABCDEF";
    std::string escaped(3 * bytes.size(), '=');
    for (size_t i = 0; i < bytes.size(); ++i) {
        escaped[3 * i + 1] = kDigits[bytes[i] >> 4];
        escaped[3 * i + 2] = kDigits[bytes[i] & 15];
    }
    talvek::fuzz::Out back{escaped.size()};
    REQUIRE(COM_DecodeHexEscape(back.text(), escaped.c_str()) == int(bytes.size()));
    REQUIRE(bytes.empty() || memcmp(back.bytes(), bytes.data(), bytes.size()) == 0);
}
