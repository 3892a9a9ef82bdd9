#ifndef TALVEK_TESTS_SUPPORT_HEX_FIXTURE_H
#define TALVEK_TESTS_SUPPORT_HEX_FIXTURE_H

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "support/bytes.h"

namespace talvek::test {

// The replies of one fixture file. The line "[51]" begins the reply to opcode 51h, "[43 2=04]" that
// to opcode 43h with 04h in byte 2 of the CDB. Two-digit hexadecimal bytes follow; "00*60" is sixty
// of them. "#" begins a comment.
struct HexReply {
    uint8_t opcode;
    std::map<size_t, uint8_t> where;
    Bytes data;
};
std::vector<HexReply> LoadHex(const std::string &fixture);

}  // namespace talvek::test

#endif
