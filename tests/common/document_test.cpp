// Compares the scraping functions with general tools, on documents from Debian packages:
// strcasestr, xmllint, w3m and html2text. For each difference there is a rule that makes both
// results equal.

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "common/html.h"
#include "common/text.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

const std::string kMimeDatabase = "/usr/share/mime/packages/freedesktop.org.xml";
const std::string kMimeSpec = "/usr/share/doc/shared-mime-info/shared-mime-info-spec.html/";
const std::string kW3mHelp = "/usr/share/w3m/w3mhelp.html";
const std::string kW3mDocs = "/usr/share/doc/w3m/";

#define NEED_FILE(path)                                                   \
    if (access((path).c_str(), R_OK) != 0) {                              \
        GTEST_SKIP() << (path) << " is not installed (see packages.txt)"; \
    }
#define NEED_TOOL(name)                                              \
    if (access("/usr/bin/" name, X_OK) != 0) {                       \
        GTEST_SKIP() << name " is not installed (see packages.txt)"; \
    }

std::vector<std::string> SplitLines(const std::string &text) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

// --- Key search and strcasestr: no difference in the C locale and in UTF-8 ---

void ExpectTheSamePlaces(const std::string &path) {
    NEED_FILE(path);
    const std::string document = ReadFile(path);
    std::mt19937 random{17};
    for (int i = 0; i < 400; ++i) {
        // A piece of the document with the case of its letters changed, or one that does not occur.
        const size_t length = random() % 24 + 1;
        std::string key = document.substr(random() % (document.size() - length), length);
        for (char &c : key) {
            c = static_cast<char>(random() % 2 == 0 ? toupper(c) : tolower(c));
        }
        if (i % 4 == 0) {
            key.back() = '\x01';
        }
        ASSERT_EQ(strcasestr(document.c_str(), key.c_str()),
                  COM_StrCaseStr(document.c_str(), key.c_str()))
            << key;
    }
}

TEST(Documents, AreSearchedLikeStrcasestrInXml) {
    ExpectTheSamePlaces(kMimeDatabase);
}
TEST(Documents, AreSearchedLikeStrcasestrInHtml) {
    ExpectTheSamePlaces(kMimeSpec + "x34.html");
    ExpectTheSamePlaces(kW3mHelp);
}

// --- XML values and xmllint ---

// The elements of a name, each from its start tag to the next start tag of that name.
std::vector<std::string> Elements(const std::string &document, const std::string &opening) {
    std::vector<std::string> elements;
    size_t at = document.find(opening);
    while (at != std::string::npos) {
        const size_t next = document.find(opening, at + 1);
        elements.push_back(document.substr(at, next - at));
        at = next;
    }
    return elements;
}

std::string Data(const std::string &text, const char *pTag) {
    char value[400] = "";
    Capture([&] {
        if (COM_GetXMLData(text.c_str(), pTag, value, sizeof value) == nullptr) {
            strcpy(value, "(none)");
        }
    });
    return value;
}

std::string Attribute(const std::string &text, const char *pTag, const char *pName) {
    char attributes[400] = "";
    char value[400] = "";
    if (COM_GetXMLAttribute(text.c_str(), pTag, attributes, sizeof attributes) == nullptr ||
        COM_GetStrInDoubleQuotes(attributes, pName, value, sizeof value - 1) == nullptr) {
        return "(none)";
    }
    return value;
}

std::vector<std::string> Xpath(const std::string &expression) {
    return SplitLines(RunCommand("xmllint --xpath '" + expression + "' " + kMimeDatabase));
}

TEST(Documents, YieldTheAttributesThatXmllintPrints) {
    NEED_FILE(kMimeDatabase);
    NEED_TOOL("xmllint");
    std::vector<std::string> found;
    for (const std::string &element : Elements(ReadFile(kMimeDatabase), "<mime-type ")) {
        found.push_back(" type=\"" + Attribute(element, "mime-type", "type=") + "\"");
    }
    EXPECT_LT(800u, found.size());
    EXPECT_EQ(Xpath("//*[local-name()=\"mime-type\"]/@type"), found);
}

// The first element without attributes. Scraping does not resolve entities; xmllint does, but
// encodes them again when it prints a text node, so both show "&amp;".
TEST(Documents, YieldTheValuesThatXmllintPrints) {
    NEED_FILE(kMimeDatabase);
    NEED_TOOL("xmllint");
    const struct {
        const char *tag;
        size_t count;
    } rows[] = {{"comment", 851}, {"acronym", 244}};
    const std::vector<std::string> elements = Elements(ReadFile(kMimeDatabase), "<mime-type ");
    for (const auto &row : rows) {
        std::vector<std::string> found;
        for (const std::string &element : elements) {
            if (element.find(std::string{"<"} + row.tag + ">") != std::string::npos) {
                found.push_back(Data(element, row.tag));
            }
        }
        EXPECT_EQ(row.count, found.size());
        EXPECT_EQ(Xpath(std::string{"//*[local-name()=\"mime-type\"]/*[local-name()=\""} + row.tag +
                        "\"][not(@*)]/text()"),
                  found);
    }
}

std::string XmllintString(const std::string &text, const std::string &path) {
    return SplitLines(RunCommand("echo '" + text + "' | xmllint --xpath 'string(" + path + ")' -") +
                      "\n")[0];
}

// Where scraping differs from XML: first the result of scraping, then that of xmllint.
TEST(Documents, DifferFromXmllintInKnownWays) {
    NEED_FILE(kMimeDatabase);
    NEED_TOOL("xmllint");
    const std::string document = ReadFile(kMimeDatabase);
    const auto xpath = [](const std::string &expression) {
        const std::vector<std::string> lines = Xpath("string(" + expression + ")");
        return lines.empty() ? std::string{} : lines[0];
    };
    const std::vector<std::string> elements = Elements(document, "<mime-type ");

    // A start tag with attributes is not found.
    const std::string translated = "<comment xml:lang=\"zz\">other</comment>";
    EXPECT_EQ("(none)", Data(translated, "comment"));
    EXPECT_EQ("other", XmllintString(translated, "//comment"));

    // Case is ignored.
    EXPECT_EQ(Data(elements[0], "comment"), Data(elements[0], "COMMENT"));
    EXPECT_EQ("", xpath("//*[local-name()=\"COMMENT\"]"));

    // A longer tag name matches: there is no element "sub-class".
    EXPECT_NE("(none)", Attribute(document, "sub-class", "type="));
    EXPECT_EQ("", xpath("//*[local-name()=\"sub-class\"]/@type"));

    // Tags in comments count.
    const std::string commented = "<r><!-- <a>1</a> --><a>2</a></r>";
    EXPECT_EQ("1", Data(commented, "a"));
    EXPECT_EQ("2", XmllintString(commented, "//a"));

    // The first closing tag ends the value.
    const std::string nested = "<a>1<a>2</a>3</a>";
    EXPECT_EQ("1<a>2", Data(nested, "a"));
    EXPECT_EQ("123", XmllintString(nested, "/a"));

    // The slash of an empty element belongs to the attributes.
    char attributes[40];
    EXPECT_NE(nullptr, COM_GetXMLAttribute("<a x=\"1\"/>", "a", attributes, sizeof attributes));
    EXPECT_STREQ(" x=\"1\"/", attributes);
}

// --- HTML to text: w3m and html2text ---

// Only letters and digits are compared: browsers wrap lines, draw rules, tables and bullets, and
// separate cells, which stripping joins.
std::string LettersAndDigits(const std::string &text) {
    std::string result;
    std::copy_if(text.begin(), text.end(), std::back_inserter(result),
                 [](unsigned char c) { return c < 128 && isalnum(c); });
    return result;
}

std::string Strip(std::string html) {
    char *result = nullptr;
    std::string text;
    if (COM_StripHtmlCode(html.data(), &result) > 0) {
        text = result;
    }
    free(result);
    return text;
}

// Something that a browser does and stripping does not. `compensate` changes the source so that
// stripping gives what the browser shows.
struct Difference {
    const char *name;
    std::string (*compensate)(const std::string &);
};

// Removes all text from `opening` to the first ">" at or after `closing`.
std::string Without(const std::string &html, const char *pOpening, const char *pClosing) {
    std::string result = html;
    while (const char *start = strcasestr(result.c_str(), pOpening)) {
        const char *closing = strcasestr(start, pClosing);
        const char *end = closing != nullptr ? strchr(closing, '>') : nullptr;
        EXPECT_NE(nullptr, end) << pOpening;
        if (end == nullptr) {
            break;
        }
        result.erase(static_cast<size_t>(start - result.c_str()),
                     static_cast<size_t>(end + 1 - start));
    }
    return result;
}

// Stripping keeps character references; a browser shows the characters. In these documents they are
// not letters or digits.
std::string WithoutReferences(const std::string &html) {
    return std::regex_replace(html, std::regex{"&(lt|gt|nbsp|#13|#38|#60|#62);"}, "");
}

// A browser numbers the items of a list.
std::string WithListNumbers(const std::string &html) {
    std::string result;
    int number = 0;
    for (size_t at = 0; at < html.size(); ++at) {
        if (strncasecmp(html.c_str() + at, "<ol", 3) == 0) {
            number = 1;
        } else if (strncasecmp(html.c_str() + at, "</ol", 4) == 0) {
            number = 0;
        } else if (strncasecmp(html.c_str() + at, "<li>", 4) == 0 && number > 0) {
            result += std::to_string(number++);
        }
        result += html[at];
    }
    return result;
}

const Difference kDifferences[] = {
    {"comments", [](const std::string &html) { return Without(html, "<!--", "-->"); }},
    {"style sheet", [](const std::string &html) { return Without(html, "<style", "</style"); }},
    {"title", [](const std::string &html) { return Without(html, "<title", "</title"); }},
    {"references", WithoutReferences},
    {"list numbers", WithListNumbers},
};

// Compares a document's stripped text with the browser's and expects the named differences only.
void ExpectTheText(const std::string &path, const std::string &command,
                   const std::vector<std::string> &differences) {
    NEED_FILE(path);
    SCOPED_TRACE(command + path);
    const std::string expected = LettersAndDigits(RunCommand(command + path));
    std::string html = ReadFile(path);
    std::vector<std::string> met;
    for (const Difference &difference : kDifferences) {
        const std::string changed = difference.compensate(html);
        if (LettersAndDigits(Strip(changed)) != LettersAndDigits(Strip(html))) {
            met.push_back(difference.name);
        }
        html = changed;
    }
    EXPECT_LT(300u, expected.size());
    EXPECT_EQ(expected, LettersAndDigits(Strip(html)));
    EXPECT_EQ(differences, met);
}

TEST(Documents, AreStrippedToTheTextThatW3mPrints) {
    NEED_TOOL("w3m");
    const std::string w3m = "LC_ALL=C.UTF-8 HOME=/nonexistent w3m -dump -T text/html -cols 200 ";
    ExpectTheText(kMimeSpec + "index.html", w3m, {"title", "references"});
    ExpectTheText(kMimeSpec + "x34.html", w3m, {"title", "references"});
    ExpectTheText(kMimeSpec + "b518.html", w3m, {"title", "references"});
    ExpectTheText(kMimeSpec + "x497.html", w3m, {"title", "references"});
    ExpectTheText(kW3mHelp, w3m, {"title", "references"});
    ExpectTheText(kW3mDocs + "STORY.html", w3m, {"title", "references", "list numbers"});
    ExpectTheText(kW3mDocs + "FAQ.html", w3m,
                  {"comments", "style sheet", "title", "references", "list numbers"});
}

// html2text prints the cells of a table side by side, so documents with such tables are omitted.
TEST(Documents, AreStrippedToTheTextThatHtml2textPrints) {
    NEED_TOOL("html2text");
    const std::string html2text = "html2text -utf8 -nobs ";
    ExpectTheText(kMimeSpec + "index.html", html2text, {"title", "references"});
    ExpectTheText(kMimeSpec + "b518.html", html2text, {"title", "references"});
    ExpectTheText(kMimeSpec + "x497.html", html2text, {"title", "references"});
    ExpectTheText(kW3mHelp, html2text, {"title", "references"});
    ExpectTheText(kW3mDocs + "STORY.html", html2text, {"title", "references", "list numbers"});
}

// An extracted and stripped element has the text that the browser prints for it.
TEST(Documents, YieldElementsThatW3mPrintsAlike) {
    NEED_TOOL("w3m");
    NEED_FILE(kW3mHelp);
    const std::string html = ReadFile(kW3mHelp);
    char *table = nullptr;
    ASSERT_GT(COM_ExtractHtmlTag("table", html.c_str(), &table, 1), 500);
    char path[] = "/tmp/talvek-test-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_EQ(static_cast<ssize_t>(strlen(table)), write(fd, table, strlen(table)));
    close(fd);
    ExpectTheText(path, "LC_ALL=C.UTF-8 HOME=/nonexistent w3m -dump -T text/html -cols 200 ",
                  {"references"});
    unlink(path);
    free(table);
}

}  // namespace
