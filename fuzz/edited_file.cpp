// Editing a file line by line: 1 byte of options; twice a line with a key and a line with its
// replacement; then the file.

#include <string.h>

#include <algorithm>
#include <vector>

#include "common/file.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

namespace {

constexpr const char *kPath = "/etc/settings";
constexpr size_t kLine = COM_FILE_ITEM_SIZE + 1;  // with its newline

void Put(char (&field)[COM_FILE_ITEM_SIZE], talvek::fuzz::Bytes bytes) {
    std::copy_n(bytes.begin(), std::min(bytes.size(), sizeof field), field);
}

}  // namespace

FUZZ_TARGET(edited_file) {
    const int options = in.U8();
    talvek::fuzz::Out out{2 * sizeof(tFileItem), 0};
    auto *items = reinterpret_cast<tFileItem *>(out.bytes());
    for (int i = 0; i < 2; ++i) {
        const talvek::fuzz::Bytes key = in.Line();
        Put(items[i].key, key);
        items[i].key_len = static_cast<int32_t>(key.size());
        Put(items[i].line, in.Line());
    }
    tFileItemRequest request = {};
    request.count = 2;
    request.find_only = options & 1;
    request.match_substring = options & 2;
    request.append_unmatched = options & 4;
    request.pItems = items;
    const talvek::fuzz::Bytes content = in.Rest();
    talvek::fuzz::World world;
    world.AddFile(kPath, content);
    const int count = COM_ReplaceItemsInFile(kPath, &request);
    REQUIRE(count >= 0 && count <= 2);
    const std::vector<uint8_t> after = world.Content(kPath);
    REQUIRE(request.find_only == 0 ||
            after == std::vector<uint8_t>(content.begin(), content.end()));
    // Two lines more at most, each with its newline; no line grows otherwise.
    REQUIRE(after.size() <= content.size() + 2 * kLine + 1);
}
