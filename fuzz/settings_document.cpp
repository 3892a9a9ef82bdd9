// A settings document: a line with the setting's name, then the document.

#include <stddef.h>
#include <string.h>

#include <algorithm>

#include "common/settings.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"

FUZZ_TARGET(settings_document) {
    const talvek::fuzz::Bytes name = in.Line();
    const talvek::fuzz::Text document{in.Rest()};
    talvek::fuzz::Out out{sizeof(tXmlDataItem)};
    memset(out.bytes(), 0, offsetof(tXmlDataItem, text) + 1);  // the text is empty
    auto *item = reinterpret_cast<tXmlDataItem *>(out.bytes());
    std::copy_n(name.begin(), std::min(name.size(), sizeof item->name), item->name);
    char before[sizeof item->name];
    memcpy(before, item->name, sizeof before);
    const int result = COM_ParserXmlData(document.get(), item);
    REQUIRE(result == 0 || result == -1);
    REQUIRE(memchr(item->text, 0, sizeof item->text) != nullptr);
    REQUIRE(item->type >= COM_XML_TYPE_INT && item->type <= COM_XML_TYPE_OTHER);
    REQUIRE(memcmp(before, item->name, sizeof before) == 0);
}
