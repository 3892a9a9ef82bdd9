#ifndef TALVEK_TESTS_SUPPORT_HEX_FIXTURE_H
#define TALVEK_TESTS_SUPPORT_HEX_FIXTURE_H

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <string>
#include <vector>

namespace talvek::test {

using Bytes = std::vector<uint8_t>;

// The replies of one fixture file: text with two-digit hexadecimal bytes ("00*60" for sixty of
// them), "#" up to the end of a line for remarks, and a line "[51]" ahead of the reply to opcode
// 51h, or "[43 2=04]" ahead of the one to opcode 43h with 04h in byte 2 of the CDB.
struct HexReply {
    uint8_t opcode;
    std::map<size_t, uint8_t> where;
    Bytes data;
};
std::vector<HexReply> LoadHex(const std::string &fixture);

}  // namespace talvek::test

#endif
