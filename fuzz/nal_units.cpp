// The search for units and SEI messages in a byte stream.

#include <string.h>

#include "common/media.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"

FUZZ_TARGET(nal_units) {
    const talvek::fuzz::Block bytes{in.Rest()};
    const int size = static_cast<int>(bytes.size());
    int type = -1;
    const int code = COM_FindStartCode(bytes.data(), size, &type);
    const void *found = size > 0 ? memmem(bytes.data(), bytes.size(), "\0\0\0\1", 4) : nullptr;
    const int expected = found != nullptr
                             ? static_cast<int>(static_cast<const uint8_t *>(found) - bytes.data())
                             : -1;
    if (expected >= 0 && expected + 4 < size) {
        REQUIRE(code == expected && type == (bytes.data()[code + 4] & 31));
    } else {
        REQUIRE(code == -1);
    }
    int payloadType = -1;
    int payloadSize = -1;
    const int sei = COM_FindSeiPayload(bytes.data(), size, &payloadType, &payloadSize);
    if (sei >= 0) {
        REQUIRE(sei >= code && sei + 6 < size);
        REQUIRE((bytes.data()[sei + 4] & 31) == COM_NAL_TYPE_SEI);
        REQUIRE(payloadType >= 0 && payloadSize >= 0);
        REQUIRE(int64_t{payloadType} + payloadSize <= int64_t{255} * size);
    } else {
        REQUIRE(sei == -1);
    }
    COM_CheckSum16(bytes.data(), size);
}
