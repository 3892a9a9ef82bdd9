// Ring buffers in memory and their files: offset and size to copy, 2 bytes each; 1 byte whose low
// bit makes both fit; then the ring's bytes.

#include <string.h>

#include <algorithm>
#include <vector>

#include "common/file_content.h"
#include "common/io.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

namespace {

using talvek::fuzz::Block;
using talvek::fuzz::Out;

constexpr const char *kPath = "/ring";

void SaveAndLoad(const Block &ring, int start, int size) {
    const int ringSize = static_cast<int>(ring.size());
    std::vector<uint8_t> expected;
    for (int i = 0; i < size; ++i) {
        expected.push_back(ring.data()[(start + i) % ringSize]);
    }
    talvek::fuzz::World world;
    world.AddFile(kPath, {});
    const int result = COM_SaveRingBufDataIntoFile(kPath, ring.data(), start, ringSize, size);
    if (result != COM_DATA_COMPLETE) {
        REQUIRE(result == -1 && start == ringSize);  // the part up to the end is empty
        return;
    }
    REQUIRE(world.Content(kPath) == expected);
    Out out{static_cast<size_t>(size)};
    REQUIRE(COM_LoadDataFromFile(kPath, out.bytes(), size) == COM_DATA_COMPLETE);
    REQUIRE(std::equal(expected.begin(), expected.end(), out.bytes()));
}

}  // namespace

FUZZ_TARGET(ring_file) {
    int offset = static_cast<int16_t>(in.U16());
    int size = static_cast<int16_t>(in.U16());
    const bool fit = (in.U8() & 1) != 0;
    const Block ring{in.Rest()};
    const int ringSize = static_cast<int>(ring.size());
    if (ringSize == 0) {
        return;
    }
    if (fit) {
        offset = (offset & 0x7FFF) % (ringSize + 1);
        size = (size & 0x7FFF) % (ringSize + 1);
    }
    Out out{static_cast<size_t>(size > 0 ? size : 0)};
    COM_ReadRingBuf(out.bytes(), ring.data(), offset, ringSize, size);
    const bool copies = size > 0 && offset >= 0 && offset <= ringSize;
    REQUIRE(copies || out.Untouched());
    for (int i = 0; copies && i < size; ++i) {
        REQUIRE(out.bytes()[i] == ring.data()[(offset + i) % ringSize]);
    }
    if (fit) {
        SaveAndLoad(ring, offset, size);
    }
    // Other bytes, which also differ from one turn of the ring to the next.
    const Block expected{{ring.data(), ring.size()}};
    for (int i = 0; i < size; ++i) {
        out.bytes()[i] = static_cast<uint8_t>(~out.bytes()[i] + i / ringSize);
        if (copies) {
            expected.data()[(offset + i) % ringSize] = out.bytes()[i];
        }
    }
    COM_WriteRingBuf(ring.data(), offset, ringSize, out.bytes(), size);
    REQUIRE(memcmp(expected.data(), ring.data(), ring.size()) == 0);
}
