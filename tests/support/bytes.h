#ifndef TALVEK_TESTS_SUPPORT_BYTES_H
#define TALVEK_TESTS_SUPPORT_BYTES_H

#include <stdint.h>

#include <vector>

namespace talvek::test {

using Bytes = std::vector<uint8_t>;

}  // namespace talvek::test

#endif
