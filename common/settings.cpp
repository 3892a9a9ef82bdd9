// Reads one setting out of a settings document.

#include "common/settings.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "common/internal/module_log.h"
#include "common/text.h"

namespace {

constexpr char kFunction[] = "COM_ParserXmlData";
constexpr char kElement[] = "<DATA";
constexpr char kElementEnd[] = "</DATA>";
constexpr char kNameAttribute[] = "Name=\"";
constexpr char kItem[] = "<ITEM";

// COM_GetStrInDoubleQuotes may write one byte more than its size.
constexpr int kValueSize = 80;
using Value = char[kValueSize + 1];

struct Element {
    const char *start = nullptr;
    const char *end = nullptr;  // at its "</DATA>"
    const char *name = nullptr;
};

// The first occurrence of a text at or after `from`. `last` is the result of an earlier call with a
// smaller `from`, or NULL. As long as `from` has not passed it, it is still the first, so that a
// walk reads the document once.
const char *NextFrom(const char *from, const char *last, const char *pPattern) {
    return last != nullptr && last >= from ? last : strstr(from, pPattern);
}

void LogMissing(const char *pPattern, const char *pFrom) {
    LOG_AS(kFunction, "Can't find [%s] pattern - [%.20s]\n", pPattern, pFrom);
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
        // An element without a name takes the next name, even after its own end.
        // Tested by ParserXmlData.TakesANameFromALaterElement.
        const char *attribute = strstr(element.start, kNameAttribute);
        if (attribute == nullptr) {
            LogMissing(kNameAttribute, element.start);
            return false;
        }
        element.name = attribute + sizeof kNameAttribute - 1;
        // A prefix matches. Tested by ParserXmlData.MatchesTheBeginningOfAName.
        if (strncmp(element.name, pName, nameSize) == 0) {
            return true;
        }
        cursor = attribute;
    }
}

// The search does not end with the element: a missing attribute is taken from a later element.
// Tested by ParserXmlData.TakesAMissingAttributeFromALaterElement.
bool ReadAttribute(const Element &element, const char *pKey, Value &value) {
    value[0] = '\0';
    return COM_GetStrInDoubleQuotes(element.start, pKey, value, kValueSize) != nullptr;
}

void ReadNumber(const Element &element, const char *pKey, int32_t &number) {
    Value value;
    if (ReadAttribute(element, pKey, value)) {
        const long parsed = strtol(value, nullptr, 10);
        number = static_cast<int32_t>(std::clamp<long>(parsed, INT32_MIN, INT32_MAX));
    }
}

void ReadType(const Element &element, int32_t &type) {
    Value value;
    if (!ReadAttribute(element, "type=", value)) {
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

// The names of items, which are truncated to the size of the record's text.
class ItemNames {
  public:
    explicit ItemNames(char (&text)[COM_XML_TEXT_SIZE]) : text_(text) {
        memset(text, 0, sizeof text);
    }

    // False when the text had to be truncated, which is logged.
    bool Append(const char *pText) {
        const size_t length = strlen(pText);
        const size_t taken = std::min(length, sizeof text_ - 1 - used_);
        memcpy(text_ + used_, pText, taken);
        if (taken < length) {
            LOG_AS(kFunction, "Warning! overflow (len, size) = (%d, %d)\n",
                   static_cast<int>(used_ + length + 1), COM_XML_TEXT_SIZE);
        }
        used_ += taken;
        return taken == length;
    }
    [[nodiscard]] bool empty() const { return used_ == 0; }

  private:
    char (&text_)[COM_XML_TEXT_SIZE];
    size_t used_ = 0;
};

void ReadItems(const Element &element, tXmlDataItem &item) {
    ItemNames names{item.text};
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

void ReadText(const Element &element, tXmlDataItem &item) {
    Value value;
    if (ReadAttribute(element, "value=", value)) {
        static_assert(sizeof item.text >= sizeof value, "a value always fits");
        memcpy(item.text, value, strlen(value) + 1);
    }
}

}  // namespace

int COM_ParserXmlData(const char *pDoc, tXmlDataItem *pItem) {
    if (pDoc == nullptr || pItem == nullptr) {
        return -1;
    }
    const size_t nameSize = strnlen(pItem->name, sizeof pItem->name);
    Element element;
    if (!FindElement(pDoc, pItem->name, nameSize, element)) {
        return -1;
    }
    const int shownName = static_cast<int>(nameSize);
    LOG("find [%.*s] pattern - [%.20s]\n", shownName, pItem->name, element.name);

    ReadType(element, pItem->type);
    if (pItem->type == COM_XML_TYPE_TEXT) {
        ReadText(element, *pItem);
    } else {
        ReadNumber(element, "min=", pItem->min);
        ReadNumber(element, "max=", pItem->max);
        ReadNumber(element, "value=", pItem->value);
        ReadItems(element, *pItem);
    }
    LOG_PLAIN("[%.*s] (min, max, value)=(%d, %d, %d) - (%d)[%.*s]\n", shownName, pItem->name,
              pItem->min, pItem->max, pItem->value, pItem->type,
              static_cast<int>(sizeof pItem->text), pItem->text);
    return 0;
}
