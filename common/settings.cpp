// One setting out of a settings document.

#include "common/settings.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "common/internal/module_log.h"
#include "common/text.h"

namespace talvek {
namespace {

constexpr char kEntry[] = "COM_ParserXmlData";
constexpr char kElement[] = "<DATA";
constexpr char kElementEnd[] = "</DATA>";
constexpr char kNameAttribute[] = "Name=\"";
constexpr char kItem[] = "<ITEM";

// A quoted value, with the byte more than its size that COM_GetStrInDoubleQuotes may write.
constexpr int kValueSize = 80;
using Value = char[kValueSize + 1];

struct Element {
    const char *start = nullptr;
    const char *end = nullptr;  // at its "</DATA>"
    const char *name = nullptr;
};

// The next occurrence of a text at or behind `from`, given one that was found from an earlier
// place: it is searched for again only when it has been passed, so a walk reads the document once.
const char *NextFrom(const char *from, const char *last, const char *pPattern) {
    return last != nullptr && last >= from ? last : strstr(from, pPattern);
}

void LogMissing(const char *pPattern, const char *pFrom) {
    LOG_AS(kEntry, "Can't find [%s] pattern - [%.20s]\n", pPattern, pFrom);
}

bool FindElement(const char *pDoc, const char *pName, size_t nameSize, Element &element) {
    const char *cursor = pDoc;
    for (;;) {
        element.start = strstr(cursor, kElement);
        if (element.start == nullptr) {
            return false;
        }
        element.end = NextFrom(element.start, element.end, kElementEnd);
        if (element.end == nullptr) {
            LogMissing(kElementEnd, element.start);
            return false;
        }
        // The name may lie behind the element's end: an element without a name takes the next one.
        // Held by ParserXmlData.TakesANameThatLiesBehindTheElement.
        const char *attribute = strstr(element.start, kNameAttribute);
        if (attribute == nullptr) {
            LogMissing(kNameAttribute, element.start);
            return false;
        }
        element.name = attribute + sizeof kNameAttribute - 1;
        // A name matches by how it begins. Held by ParserXmlData.MatchesTheBeginningOfAName.
        if (strncmp(element.name, pName, nameSize) == 0) {
            return true;
        }
        cursor = attribute;
    }
}

// Attributes are searched without regard to the element's end: one that is missing is taken from
// what follows. Held by ParserXmlData.TakesAMissingAttributeFromALaterElement.
bool TakeAttribute(const Element &element, const char *pKey, Value &value) {
    value[0] = '\0';
    return COM_GetStrInDoubleQuotes(element.start, pKey, value, kValueSize) != nullptr;
}

void TakeNumber(const Element &element, const char *pKey, int32_t &number) {
    Value value;
    if (TakeAttribute(element, pKey, value)) {
        const long parsed = strtol(value, nullptr, 10);
        number = parsed > INT32_MAX   ? INT32_MAX
                 : parsed < INT32_MIN ? INT32_MIN
                                      : static_cast<int32_t>(parsed);
    }
}

void TakeType(const Element &element, int32_t &type) {
    Value value;
    if (!TakeAttribute(element, "type=", value)) {
        return;
    }
    if (strcmp(value, "INT") == 0) {
        type = COM_XML_TYPE_INT;
    } else if (strcmp(value, "VIRTKB") == 0 || strcmp(value, "TEXT") == 0) {
        type = COM_XML_TYPE_TEXT;
    } else {
        type = COM_XML_TYPE_OTHER;
    }
}

// A text of fixed size that cuts what does not fit.
template <size_t kSize>
class FixedText {
  public:
    explicit FixedText(char (&text)[kSize]) : text_(text) { memset(text, 0, kSize); }

    // False when something had to be left out, which is logged.
    bool Append(const char *pWhat) {
        const size_t length = strlen(pWhat);
        const size_t room = kSize - 1 - used_;
        const size_t taken = length < room ? length : room;
        memcpy(text_ + used_, pWhat, taken);
        used_ += taken;
        if (taken < length) {
            LOG_AS(kEntry, "Warning! overflow (len, size) = (%d, %d)\n",
                   static_cast<int>(used_ - taken + length + 1), static_cast<int>(kSize));
            return false;
        }
        return true;
    }
    [[nodiscard]] bool empty() const { return used_ == 0; }

  private:
    char (&text_)[kSize];
    size_t used_ = 0;
};

void TakeItems(const Element &element, tXmlDataItem &item) {
    FixedText<sizeof item.text> names{item.text};
    const char *position = element.start;
    for (;;) {
        const char *start = strstr(position, kItem);
        if (start == nullptr || start >= element.end) {
            return;
        }
        Value name;
        position = COM_GetStrInDoubleQuotes(start, "Name=", name, kValueSize);
        if (position == nullptr || (!names.empty() && !names.Append(",")) || !names.Append(name)) {
            return;
        }
    }
}

void TakeText(const Element &element, tXmlDataItem &item) {
    Value value;
    if (TakeAttribute(element, "value=", value)) {
        static_assert(sizeof item.text >= sizeof value, "a value always fits");
        memcpy(item.text, value, strlen(value) + 1);
    }
}

}  // namespace
}  // namespace talvek

int COM_ParserXmlData(const char *pDoc, tXmlDataItem *pItem) {
    if (pDoc == nullptr || pItem == nullptr) {
        return -1;
    }
    const size_t nameSize = strnlen(pItem->name, sizeof pItem->name);
    talvek::Element element;
    if (!talvek::FindElement(pDoc, pItem->name, nameSize, element)) {
        return -1;
    }
    const int shownName = static_cast<int>(nameSize);
    LOG("find [%.*s] pattern - [%.20s]\n", shownName, pItem->name, element.name);

    talvek::TakeType(element, pItem->type);
    if (pItem->type == COM_XML_TYPE_TEXT) {
        talvek::TakeText(element, *pItem);
    } else {
        talvek::TakeNumber(element, "min=", pItem->min);
        talvek::TakeNumber(element, "max=", pItem->max);
        talvek::TakeNumber(element, "value=", pItem->value);
        talvek::TakeItems(element, *pItem);
    }
    LOG_PLAIN("[%.*s] (min, max, value)=(%d, %d, %d) - (%d)[%.*s]\n", shownName, pItem->name,
              pItem->min, pItem->max, pItem->value, pItem->type,
              static_cast<int>(sizeof pItem->text), pItem->text);
    return 0;
}
