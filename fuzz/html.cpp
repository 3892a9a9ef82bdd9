// HTML: a line with the element's name, then the text.

#include <stdlib.h>
#include <string.h>

#include "common/html.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"

FUZZ_TARGET(html) {
    const talvek::fuzz::Text tag{in.Line()};
    const talvek::fuzz::Bytes rest = in.Rest();
    const talvek::fuzz::Text source{rest};
    for (const int keep : {COM_HTML_CONTENT, COM_HTML_WITH_TAGS}) {
        char *element = nullptr;
        const int size = COM_ExtractHtmlTag(tag.get(), source.get(), &element, keep);
        if (size >= 0) {
            REQUIRE(element != nullptr && strlen(element) + 1 == static_cast<size_t>(size));
            REQUIRE(strstr(source.get(), element) != nullptr);
        } else {
            REQUIRE(size == -1 && element == nullptr);
        }
        free(element);
    }
    const talvek::fuzz::Text stripped{rest};
    char *text = nullptr;
    const int size = COM_StripHtmlCode(stripped.get(), &text);
    if (size >= 0) {
        REQUIRE(text != nullptr && strlen(text) + 1 == static_cast<size_t>(size));
        REQUIRE(static_cast<size_t>(size) <= source.length() + 1);
    } else {
        REQUIRE(size == -1 && text == nullptr);
    }
    free(text);
}
