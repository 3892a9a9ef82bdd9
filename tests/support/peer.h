#ifndef TALVEK_TESTS_SUPPORT_PEER_H
#define TALVEK_TESTS_SUPPORT_PEER_H

#include <stdint.h>

#include <string>
#include <vector>

namespace talvek::test {

// Standard output and error of a command line of an installed program; empty when the program is
// not there.
std::string RunPeer(const std::string &command);

// "12 00 00" of bytes.
std::string HexText(const std::vector<uint8_t> &bytes);

// The same in a file, sixteen bytes a line.
void WriteHex(const std::string &path, const std::vector<uint8_t> &bytes);

}  // namespace talvek::test

#endif
