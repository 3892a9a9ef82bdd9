#include "common/settings.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include "support/canary.h"
#include "support/capture.h"
#include "support/cpu_time.h"

namespace {

using namespace talvek::test;

// A record between canaries, with numbers and a text that show whether the call wrote them.
class Record {
  public:
    explicit Record(const std::string &name) {
        memset(item, 0, sizeof *item);
        memcpy(item->name, name.data(), name.size());
        item->type = item->min = item->max = item->value = -77;
        strcpy(item->text, "before");
    }
    // The page after the document cannot be read.
    int Parse(const std::string &doc) {
        const GuardedCopy text{doc.c_str()};
        int result = -2;
        log = CaptureLog([&] { result = COM_ParserXmlData(text.text(), item); });
        return result;
    }

    Lines log;

  private:
    CanaryBuf buf_{sizeof(tXmlDataItem)};

  public:
    tXmlDataItem *item = reinterpret_cast<tXmlDataItem *>(buf_.bytes());
};

void ExpectNumbers(const tXmlDataItem &item, int type, int min, int max, int value) {
    EXPECT_EQ(type, item.type);
    EXPECT_EQ(min, item.min);
    EXPECT_EQ(max, item.max);
    EXPECT_EQ(value, item.value);
}

TEST(ParserXmlData, ReadsAnIntegerSetting) {
    Record r{"Bright"};
    EXPECT_EQ(0, r.Parse("<DATA Name=\"Bright\" type=\"INT\" min=\"0\" max=\"10\" value=\"5\">"
                         "</DATA>"));
    ExpectNumbers(*r.item, COM_XML_TYPE_INT, 0, 10, 5);
    EXPECT_STREQ("", r.item->text);
    EXPECT_EQ(
        (Lines{"COMMON:COM_ParserXmlData(): find [Bright] pattern - [Bright\" type=\"INT\" m]",
               "COMMON: [Bright] (min, max, value)=(0, 10, 5) - (0)[]"}),
        r.log);
}

TEST(ParserXmlData, ListsTheItemsOfAnEnumeration) {
    Record r{"Mode"};
    EXPECT_EQ(0, r.Parse("<DATA Name=\"Mode\" type=\"INT\" value=\"1\"><ITEM Name=\"Off\"/>"
                         "<ITEM Name=\"On\"/></DATA><ITEM Name=\"Later\"/>"));
    EXPECT_EQ(1, r.item->value);
    EXPECT_STREQ("Off,On", r.item->text);
    EXPECT_EQ("COMMON: [Mode] (min, max, value)=(-77, -77, 1) - (0)[Off,On]", r.log.back());
}

TEST(ParserXmlData, ReadsATextSetting) {
    for (const char *pType : {"TEXT", "VIRTKB"}) {
        Record r{"Title"};
        EXPECT_EQ(0, r.Parse(std::string{"<DATA Name=\"Title\" type=\""} + pType +
                             "\" min=\"1\" value=\"Hall\"><ITEM Name=\"x\"/></DATA>"));
        ExpectNumbers(*r.item, COM_XML_TYPE_TEXT, -77, -77, -77);
        EXPECT_STREQ("Hall", r.item->text);
    }
}

TEST(ParserXmlData, KeepsTheTextOfATextSettingWithoutAValue) {
    for (const char *pValue : {"", "value=\"\"", "value=\"open"}) {
        Record r{"Title"};
        EXPECT_EQ(0, r.Parse(std::string{"<DATA Name=\"Title\" type=\"TEXT\"></DATA>"} + pValue));
        EXPECT_STREQ("before", r.item->text);
    }
}

TEST(ParserXmlData, ReadsAnyOtherTypeLikeAnInteger) {
    for (const char *pType : {"FLOAT", "int", "text", "INT ", "TEXTS"}) {
        Record r{"A"};
        EXPECT_EQ(0, r.Parse(std::string{"<DATA Name=\"A\" type=\""} + pType +
                             "\" min=\"-3\" max=\"4\" value=\"2\"><ITEM Name=\"i\"></DATA>"));
        ExpectNumbers(*r.item, COM_XML_TYPE_OTHER, -3, 4, 2);
        EXPECT_STREQ("i", r.item->text);
    }
}

TEST(ParserXmlData, UsesTheRecordsTypeIfTheDocumentHasNone) {
    for (const char *pAttribute : {"", "type=\"\" "}) {
        for (const int type : {0, 1, 2, -5, INT_MAX}) {
            Record r{"A"};
            r.item->type = type;
            EXPECT_EQ(
                0, r.Parse(std::string{"<DATA Name=\"A\" value=\"7\" "} + pAttribute + "></DATA>"));
            EXPECT_EQ(type, r.item->type);
            EXPECT_EQ(type == 1 ? -77 : 7, r.item->value);
            EXPECT_STREQ(type == 1 ? "7" : "", r.item->text);
        }
    }
}

TEST(ParserXmlData, FindsAttributesInAnyOrderAndCase) {
    Record r{"A"};
    EXPECT_EQ(0, r.Parse("<DATA VALUE=\"3\" Max=\"9\" TYPE=\"INT\" MIN=\"-1\" Name=\"A\"></DATA>"));
    ExpectNumbers(*r.item, COM_XML_TYPE_INT, -1, 9, 3);
}

TEST(ParserXmlData, LeavesNumbersWithoutAnAttributeUnchanged) {
    Record r{"A"};
    EXPECT_EQ(0, r.Parse("<DATA Name=\"A\" type=\"INT\" min=\"\" max=\"8\"></DATA>"));
    ExpectNumbers(*r.item, COM_XML_TYPE_INT, -77, 8, -77);
}

TEST(ParserXmlData, TakesAMissingAttributeFromALaterElement) {
    Record r{"A"};
    EXPECT_EQ(0, r.Parse("<DATA Name=\"A\" max=\"1\"></DATA>"
                         "<DATA Name=\"B\" type=\"INT\" min=\"2\" max=\"3\" value=\"4\"></DATA>"));
    ExpectNumbers(*r.item, COM_XML_TYPE_INT, 2, 1, 4);
}

TEST(ParserXmlData, MatchesTheBeginningOfAName) {
    const char *doc =
        "<DATA Name=\"Contrast\" value=\"1\"></DATA><DATA Name=\"Brightness\" value=\"2\"></DATA>"
        "<DATA Name=\"Bright\" value=\"3\"></DATA>";
    Record r{"Bright"};
    EXPECT_EQ(0, r.Parse(doc));
    EXPECT_EQ(2, r.item->value);
    Record other{"Bright\""};  // the closing quote makes it the whole name
    EXPECT_EQ(0, other.Parse(doc));
    EXPECT_EQ(3, other.item->value);
    Record any{""};
    EXPECT_EQ(0, any.Parse(doc));
    EXPECT_EQ(1, any.item->value);
}

TEST(ParserXmlData, MatchesTheCaseOfElementsAndNames) {
    for (const char *pDoc :
         {"<data Name=\"A\" value=\"1\"></data>", "<DATA Name=\"a\" value=\"1\"></DATA>"}) {
        Record r{"A"};
        EXPECT_EQ(-1, r.Parse(pDoc));
        EXPECT_EQ(Lines{}, r.log);
    }
    Record r{"A"};
    EXPECT_EQ(-1, r.Parse("<DATA name=\"A\" value=\"1\"></DATA>"));
    EXPECT_EQ(
        (Lines{
            "COMMON:COM_ParserXmlData(): Can't find [Name=\"] pattern - [<DATA name=\"A\" value]"}),
        r.log);
}

TEST(ParserXmlData, FailsSilentlyWithoutTheName) {
    for (const char *pDoc : {"", "no data", "<DAT Name=\"A\">", "<DATA Name=\"B\"></DATA>",
                             "<DATA Name=\"B\"></DATA><DATA Name=\"C\"></DATA>"}) {
        Record r{"A"};
        EXPECT_EQ(-1, r.Parse(pDoc));
        EXPECT_EQ(Lines{}, r.log);
        ExpectNumbers(*r.item, -77, -77, -77, -77);
        EXPECT_STREQ("before", r.item->text);
    }
}

TEST(ParserXmlData, LogsWhatAnElementLacks) {
    Record open{"A"};
    EXPECT_EQ(-1, open.Parse("<DATA Name=\"A\" value=\"1\">"));
    EXPECT_EQ(
        (Lines{
            "COMMON:COM_ParserXmlData(): Can't find [</DATA>] pattern - [<DATA Name=\"A\" value]"}),
        open.log);
    Record second{"B"};
    EXPECT_EQ(-1, second.Parse("<DATA Name=\"A\"></DATA><DATA Name=\"B\">"));
    EXPECT_EQ(
        (Lines{"COMMON:COM_ParserXmlData(): Can't find [</DATA>] pattern - [<DATA Name=\"B\">]"}),
        second.log);
    Record nameless{"A"};
    EXPECT_EQ(-1, nameless.Parse("<DATA x></DATA>"));
    EXPECT_EQ(
        (Lines{"COMMON:COM_ParserXmlData(): Can't find [Name=\"] pattern - [<DATA x></DATA>]"}),
        nameless.log);
    ExpectNumbers(*nameless.item, -77, -77, -77, -77);
}

TEST(ParserXmlData, TakesANameFromALaterElement) {
    Record r{"A"};
    EXPECT_EQ(0, r.Parse("<DATA value=\"1\"></DATA><X Name=\"A\" value=\"2\">"));
    EXPECT_EQ(1, r.item->value);
}

TEST(ParserXmlData, EndsTheItemsBeforeAnEmptyName) {
    Record r{"A"};
    EXPECT_EQ(0, r.Parse("<DATA Name=\"A\"><ITEM Name=\"x\"/><ITEM Name=\"\"/><ITEM Name=\"y\"/>"
                         "</DATA>"));
    EXPECT_STREQ("x", r.item->text);
    // An item without a name attribute takes the name of the next item.
    Record skipped{"A"};
    EXPECT_EQ(0,
              skipped.Parse("<DATA Name=\"A\"><ITEM/><ITEM Name=\"x\"/><ITEM Name=\"y\"/></DATA>"));
    EXPECT_STREQ("x,y", skipped.item->text);
}

TEST(ParserXmlData, DoesNotMistakeAnItemForASetting) {
    Record r{"Off"};
    EXPECT_EQ(-1, r.Parse("<DATA Name=\"Mode\"><ITEM Name=\"Off\"/></DATA>"));
}

TEST(ParserXmlData, ReadsNumbersLikeStrtol) {
    const struct {
        const char *text;
        int value;
    } rows[] = {{"12", 12},
                {" -12", -12},
                {"+7x", 7},
                {"x", 0},
                {"0x10", 0},
                {"010", 10},
                {"2147483647", INT_MAX},
                {"2147483648", INT_MAX},
                {"-2147483648", INT_MIN},
                {"-2147483649", INT_MIN},
                {"99999999999999999999", INT_MAX}};
    for (const auto &row : rows) {
        Record r{"A"};
        EXPECT_EQ(0, r.Parse(std::string{"<DATA Name=\"A\" value=\""} + row.text + "\"></DATA>"));
        EXPECT_EQ(row.value, r.item->value) << row.text;
    }
}

TEST(ParserXmlData, TruncatesAValueTo80Characters) {
    for (const size_t length : {79, 80, 81, 300}) {
        Record r{"A"};
        const std::string value(length, 'v');
        EXPECT_EQ(0, r.Parse("<DATA Name=\"A\" type=\"TEXT\" value=\"" + value + "\"></DATA>"));
        EXPECT_EQ(value.substr(0, 80), r.item->text);
        EXPECT_EQ(length >= 80 ? 3u : 2u, r.log.size());
        if (length >= 80) {
            EXPECT_EQ("COMMON:COM_GetStrInDoubleQuotes(): Warning! overflow (len, size) = (" +
                          std::to_string(length) + ", 80)",
                      r.log[1]);
        }
    }
}

// Five names of 50 characters and their commas take 254 characters; the last name has 0 to 2 more.
TEST(ParserXmlData, TruncatesTheItemsToTheText) {
    for (size_t last = 1; last <= 3; ++last) {
        std::string doc = "<DATA Name=\"A\">";
        std::string names;
        for (int i = 0; i < 5; ++i) {
            const std::string name(50, static_cast<char>('a' + i));
            doc += "<ITEM Name=\"" + name + "\"/>";
            names += (i > 0 ? "," : "") + name;
        }
        // 254 + last - 1 characters altogether.
        doc.insert(doc.size() - 3, std::string(last - 1, 'e'));
        names += std::string(last - 1, 'e');
        doc += "</DATA>";
        Record r{"A"};
        EXPECT_EQ(0, r.Parse(doc));
        EXPECT_EQ(names.substr(0, 255), r.item->text);
        if (names.size() > 255) {
            EXPECT_EQ("COMMON:COM_ParserXmlData(): Warning! overflow (len, size) = (257, 256)",
                      r.log[1]);
        }
        EXPECT_EQ(names.size() > 255 ? 3u : 2u, r.log.size());
    }
}

TEST(ParserXmlData, StopsAtTheFirstItemThatDoesNotFit) {
    std::string doc = "<DATA Name=\"A\">";
    for (int i = 0; i < 100; ++i) {
        doc += "<ITEM Name=\"abcdefghijklmnopqrst\"/>";  // 21 characters with its comma
    }
    Record r{"A"};
    EXPECT_EQ(0, r.Parse(doc + "</DATA>"));
    EXPECT_EQ(255u, strlen(r.item->text));
    ASSERT_EQ(3u, r.log.size());
    // Twelve names take 251 bytes, a comma and the thirteenth 21 more, the NUL one: 273.
    EXPECT_EQ("COMMON:COM_ParserXmlData(): Warning! overflow (len, size) = (273, 256)", r.log[1]);
}

TEST(ParserXmlData, AcceptsANameThatFillsItsField) {
    const std::string name(80, 'n');
    Record r{name};  // no NUL in the field
    r.item->type = 0x6E6E6E6E;
    EXPECT_EQ(0, r.Parse("<DATA Name=\"" + name + "\" value=\"1\"></DATA>"));
    EXPECT_EQ(1, r.item->value);
    EXPECT_EQ("COMMON: [" + name + "] (min, max, value)=(-77, -77, 1) - (1852730990)[]",
              r.log.back());
    Record shorter{name};
    EXPECT_EQ(-1, shorter.Parse("<DATA Name=\"" + name.substr(1) + "\" value=\"1\"></DATA>"));
}

TEST(ParserXmlData, LogsATextWithoutANulUpToItsEnd) {
    Record r{"A"};
    memset(r.item->text, 't', sizeof r.item->text);
    EXPECT_EQ(0, r.Parse("<DATA Name=\"A\" type=\"TEXT\"></DATA>"));
    EXPECT_EQ("COMMON: [A] (min, max, value)=(-77, -77, -77) - (1)[" + std::string(256, 't') + "]",
              r.log.back());
}

// The text between the first pair of double quotes after a key, ignoring the key's case. `after` is
// the end of the key, or npos without such a text.
std::string Quoted(const std::string &doc, size_t from, const std::string &key, size_t &after) {
    const char *found = strcasestr(doc.c_str() + from, key.c_str());
    after = std::string::npos;
    if (found == nullptr) {
        return "";
    }
    const size_t end = static_cast<size_t>(found - doc.c_str()) + key.size();
    const size_t opening = doc.find('"', end);
    const size_t closing = opening == std::string::npos ? opening : doc.find('"', opening + 1);
    if (closing == std::string::npos || closing == opening + 1) {
        return "";
    }
    after = end;
    return doc.substr(opening + 1, closing - opening - 1);
}

// The rule in its plainest form: fills a record that names a setting.
int ParseByTheRule(const std::string &doc, tXmlDataItem &item) {
    size_t data = 0;
    size_t end = 0;
    for (size_t cursor = 0;;) {
        data = doc.find("<DATA", cursor);
        end = data == std::string::npos ? data : doc.find("</DATA>", data);
        const size_t name = end == std::string::npos ? end : doc.find("Name=\"", data);
        if (name == std::string::npos) {
            return -1;
        }
        if (doc.compare(name + 6, strlen(item.name), item.name) == 0) {
            break;
        }
        cursor = name;
    }
    size_t after = 0;
    const std::string type = Quoted(doc, data, "type=", after);
    if (after != std::string::npos) {
        item.type = type == "INT" ? 0 : type == "VIRTKB" || type == "TEXT" ? 1 : 2;
    }
    if (item.type == 1) {
        const std::string value = Quoted(doc, data, "value=", after);
        if (after != std::string::npos) {
            strcpy(item.text, value.c_str());
        }
        return 0;
    }
    const struct {
        const char *key;
        int32_t *number;
    } rows[] = {{"min=", &item.min}, {"max=", &item.max}, {"value=", &item.value}};
    for (const auto &row : rows) {
        const std::string value = Quoted(doc, data, row.key, after);
        if (after != std::string::npos) {
            *row.number = atoi(value.c_str());
        }
    }
    std::string names;
    for (size_t at = doc.find("<ITEM", data); at < end; at = doc.find("<ITEM", after)) {
        const std::string name = Quoted(doc, at, "Name=", after);
        if (after == std::string::npos) {
            break;
        }
        names += (names.empty() ? "" : ",") + name;
    }
    strcpy(item.text, names.c_str());
    return 0;
}

// Pieces in any order, so that elements lack parts, share parts and are nested.
TEST(ParserXmlData, ReadsWhatTheRuleReads) {
    std::mt19937 random{18};
    const char *pieces[] = {"<DATA ",
                            "</DATA>",
                            "Name=\"A\" ",
                            "Name=\"B\" ",
                            "name=\"C\" ",
                            "type=\"INT\" ",
                            "type=\"TEXT\" ",
                            "TYPE=\"X\" ",
                            "min=\"-1\" ",
                            "max=\"22\" ",
                            "value=\"7\" ",
                            "value=\"\" ",
                            "<ITEM Name=\"I\">",
                            "<ITEM ",
                            "Name=\"\" ",
                            "\""};
    int found = 0;
    for (int i = 0; i < 4000; ++i) {
        std::string doc = i % 2 == 0 ? "<DATA " : "<DATA Name=\"A\" ";
        for (size_t count = random() % 16; count > 0; --count) {
            doc += pieces[random() % std::size(pieces)];
        }
        doc += i % 4 == 0 ? "" : "</DATA>";
        Record r{"A"};
        tXmlDataItem expected = *r.item;
        const int result = ParseByTheRule(doc, expected);
        ASSERT_EQ(result, r.Parse(doc)) << doc;
        ExpectNumbers(*r.item, expected.type, expected.min, expected.max, expected.value);
        ASSERT_STREQ(expected.text, r.item->text) << doc;
        ASSERT_FALSE(HasFailure()) << doc;
        found += result == 0;
    }
    EXPECT_LT(1000, found);
    EXPECT_GT(3000, found);
}

TEST(ParserXmlData, FailsForNull) {
    Record r{"A"};
    EXPECT_EQ(-1, COM_ParserXmlData(nullptr, r.item));
    EXPECT_EQ(-1, COM_ParserXmlData("<DATA Name=\"A\"></DATA>", nullptr));
}

TEST(ParserXmlData, StaysWithinADocumentOfAnyLength) {
    const std::string whole =
        "<DATA Name=\"B\" value=\"1\"></DATA>\n<DATA Name=\"Mode\" type=\"INT\" min=\"0\" "
        "max=\"3\" "
        "value=\"1\"><ITEM Name=\"Off\"/><ITEM Name=\"On\"/></DATA>\n";
    for (size_t length = 0; length <= whole.size(); ++length) {
        Record r{"Mode"};
        EXPECT_EQ(length >= whole.size() - 1 ? 0 : -1, r.Parse(whole.substr(0, length)));
    }
}

// 200,000 start tags of 15 bytes and one end tag: a search for the end tag from each start tag
// would read 300 GB.
TEST(ParserXmlData, TakesTimeInProportionToTheDocument) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's strstr measures the whole text at each call";
#endif
    std::string doc;
    for (int i = 0; i < 200000; ++i) {
        doc += "<DATA Name=\"x\">";
    }
    doc += "</DATA>";
    Record r{"A"};
    const talvek::test::CpuTime used;
    EXPECT_EQ(-1, r.Parse(doc));
    EXPECT_LT(used.Seconds(), 5);
}

}  // namespace
