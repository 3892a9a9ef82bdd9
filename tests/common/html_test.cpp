#include "common/html.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <malloc.h>
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

// While g_memory is not 0, requests of realloc for more bytes fail and are counted.
size_t g_memory = 0;
int g_refused = 0;

}  // namespace

extern "C" {
void *__real_realloc(void *pBlock, size_t size);
void *__wrap_realloc(void *pBlock, size_t size);

void *__wrap_realloc(void *pBlock, size_t size) {
    if (g_memory != 0 && size > g_memory) {
        ++g_refused;
        errno = ENOMEM;
        return nullptr;
    }
    return __real_realloc(pBlock, size);
}
}

namespace {

struct Stripped {
    int count;
    std::string text;
    std::string source;  // after the call
    bool operator==(const Stripped &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Stripped &stripped) {
    return out << stripped.count << " [" << stripped.text << "] from [" << stripped.source << "]";
}

Stripped Strip(const std::string &source) {
    const GuardedCopy text{source.c_str()};
    char *result = nullptr;
    Stripped stripped{COM_StripHtmlCode(text.text(), &result), "", text.text()};
    if (stripped.count > 0) {
        EXPECT_EQ(stripped.count - 1, static_cast<int>(strlen(result)));
        stripped.text = result;
    } else {
        EXPECT_EQ(nullptr, result);
    }
    free(result);
    return stripped;
}

std::string StripText(const std::string &source) {
    return Strip(source).text;
}

// The rule in its plainest form, character by character.
Stripped StripByTheRule(std::string source) {
    enum { kOutside, kTag, kLineBreak } state = kOutside;
    std::string text;
    for (size_t i = 0; i < source.size(); ++i) {
        if (state == kOutside) {
            if (source[i] == '<') {
                state = strncasecmp(source.c_str() + i + 1, "BR", 2) == 0 ? kLineBreak : kTag;
            } else {
                text += source[i];
            }
        } else if (source[i] == '>') {
            if (state == kLineBreak) {
                source[i] = '\n';
                text += '\n';
            }
            state = kOutside;
        }
    }
    return {text.empty() ? -1 : static_cast<int>(text.size()) + 1, text, source};
}

TEST(StripHtmlCode, WritesTheNewlinesIntoTheSource) {
    EXPECT_EQ((Stripped{8, "abold\nc", "a<b>bold</b><br\nc"}), Strip("a<b>bold</b><br>c"));
    EXPECT_EQ((Stripped{2, "\n", "<br\n"}), Strip("<br>"));
}

TEST(StripHtmlCode, FailsForTagsWithoutText) {
    EXPECT_EQ((Stripped{-1, "", "<p></p>"}), Strip("<p></p>"));
    EXPECT_EQ((Stripped{-1, "", ""}), Strip(""));
    EXPECT_EQ((Stripped{-1, "", "<"}), Strip("<"));
    EXPECT_EQ((Stripped{-1, "", "<br"}), Strip("<br"));
    EXPECT_EQ((Stripped{-1, "", "<p never closed"}), Strip("<p never closed"));
}

TEST(StripHtmlCode, ReplacesEveryTagThatBeginsWithBrByANewline) {
    for (const char *pTag : {"<br>", "<BR/>", "<Br clear=all>", "<bR>", "<Brief>", "<br<br>"}) {
        EXPECT_EQ("a\nb", StripText(std::string{"a"} + pTag + "b")) << pTag;
    }
    for (const char *pTag : {"<b>", "<b r>", "</br>", "< br>", "<>", "<r>"}) {
        EXPECT_EQ("ab", StripText(std::string{"a"} + pTag + "b")) << pTag;
    }
}

TEST(StripHtmlCode, KeepsEverythingElse) {
    EXPECT_EQ(" a > b &lt;\r\n\t", StripText(" a > b &lt;\r\n\t"));
    EXPECT_EQ("\xC3\xA4\xFF", StripText("\xC3\xA4\xFF"));
    EXPECT_EQ("rest\">x", StripText("<a title=\"1>rest\">x"));
}

TEST(StripHtmlCode, StripsWhatTheRuleStrips) {
    std::mt19937 random{13};
    const char *pieces[] = {"<", ">", "br", "BR", "b", "text ", "<p>", "</p>", "\n", "<br>"};
    for (int i = 0; i < 3000; ++i) {
        std::string source;
        for (size_t count = random() % 60; count > 0; --count) {
            source += pieces[random() % std::size(pieces)];
        }
        ASSERT_EQ(StripByTheRule(source), Strip(source)) << source;
    }
}

TEST(StripHtmlCode, ReadsNothingAfterTheText) {
    const std::string whole = "<h1>A</h1><br/>b<br>c<BRIEF x=y>d<p>e";
    for (size_t length = 0; length <= whole.size(); ++length) {
        EXPECT_EQ(StripByTheRule(whole.substr(0, length)), Strip(whole.substr(0, length)));
    }
}

// Around the size at which the block begins to grow in larger steps, and far beyond it.
TEST(StripHtmlCode, ReturnsTextsOfEverySizeWithoutSpareRoom) {
    for (const size_t size : {1, 2, 62, 63, 64, 65, 66, 126, 127, 128, 129, 130, 1000, 100000}) {
        for (const bool inOneRun : {true, false}) {
            std::string source;
            for (size_t i = 0; i < size; ++i) {
                source += static_cast<char>('a' + i % 26);
                source += inOneRun ? "" : "<i>";
            }
            std::string expected;
            for (size_t i = 0; i < size; ++i) {
                expected += static_cast<char>('a' + i % 26);
            }
            char *result = nullptr;
            EXPECT_EQ(static_cast<int>(size) + 1, COM_StripHtmlCode(source.data(), &result));
            EXPECT_EQ(expected, result);
#if !defined(__SANITIZE_ADDRESS__)
            EXPECT_LT(malloc_usable_size(result), size + 1 + 64);
#endif
            free(result);
        }
    }
}

// One run of text, and as many runs as characters.
TEST(StripHtmlCode, UsesAllMemoryWithFewRefusedRequests) {
    constexpr size_t kMemory = 1'500'000;
    for (const bool inOneRun : {true, false}) {
        std::string source;
        for (size_t i = 0; i < 2 * kMemory; ++i) {
            source += inOneRun ? "x" : "x<i>";
        }
        char *result = nullptr;
        g_memory = kMemory;
        g_refused = 0;
        EXPECT_EQ(
            (Lines{"COMMON:COM_ReallocAndCopyBuf(): REALLOC(1500001) failed : Cannot allocate "
                   "memory",
                   "COMMON:COM_StripHtmlCode(): COM_ReallocAndCopyBuf(1500000) error",
                   "COMMON:COM_ReallocAndCopyBuf(): REALLOC(1500001) failed : Cannot allocate "
                   "memory",
                   "COMMON:COM_StripHtmlCode(): COM_ReallocAndCopyBuf(1500001) error"}),
            CaptureLog(
                [&] { EXPECT_EQ(int{kMemory}, COM_StripHtmlCode(source.data(), &result)); }));
        g_memory = 0;
        // The step is halved 21 times from 1.5 million to 1; two requests are for a single byte.
        EXPECT_LE(g_refused, 23);
        EXPECT_EQ(std::string(kMemory - 1, 'x'), result);
        free(result);
    }
}

TEST(StripHtmlCode, ReusesTheCallersBlock) {
    char *result = strdup("the old text of the block, longer than the new text");
    char source[] = "<p>new</p>";
    EXPECT_EQ(4, COM_StripHtmlCode(source, &result));
    EXPECT_STREQ("new", result);
    char longer[] = "<p>a text that needs more room than the one before it</p>";
    EXPECT_EQ(51, COM_StripHtmlCode(longer, &result));
    EXPECT_STREQ("a text that needs more room than the one before it", result);
    char empty[] = "<p></p>";
    EXPECT_EQ(-1, COM_StripHtmlCode(empty, &result));
    EXPECT_STREQ("a text that needs more room than the one before it", result);
    free(result);
}

TEST(StripHtmlCode, FailsForNull) {
    char source[] = "a";
    char *result = nullptr;
    EXPECT_EQ(-1, COM_StripHtmlCode(nullptr, &result));
    EXPECT_EQ(-1, COM_StripHtmlCode(source, nullptr));
    EXPECT_EQ(nullptr, result);
}

// 4 MB: measuring the text again after each character would read 8,000 GB.
TEST(StripHtmlCode, TakesTimeInProportionToTheText) {
    std::string source;
    while (source.size() < 4000000) {
        source += "<td>a</td><br>";
    }
    char *result = nullptr;
    const talvek::test::CpuTime used;
    EXPECT_GT(COM_StripHtmlCode(source.data(), &result), 500000);
    EXPECT_LT(used.Seconds(), 3);
    free(result);
}

// --- Elements ---

struct Extracted {
    int count;
    std::string text;
    bool operator==(const Extracted &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Extracted &extracted) {
    return out << extracted.count << " [" << extracted.text << "]";
}

Extracted Extract(const char *pTag, const std::string &html, int keepTags) {
    const GuardedCopy text{html.c_str()};
    char *result = nullptr;
    Extracted extracted{0, ""};
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  extracted.count = COM_ExtractHtmlTag(pTag, text.text(), &result, keepTags);
              }));
    if (extracted.count > 0) {
        EXPECT_EQ(extracted.count - 1, static_cast<int>(strlen(result)));
        extracted.text = result;
    } else {
        EXPECT_EQ(nullptr, result);
    }
    free(result);
    EXPECT_STREQ(html.c_str(), text.text()) << "the source changed";
    return extracted;
}

const Extracted kNone{-1, ""};

TEST(ExtractHtmlTag, CutsOutAnElementWithOrWithoutItsTags) {
    const std::string html = "x<p>y</p><div id=1>a<b>c</b></div>z";
    EXPECT_EQ((Extracted{10, "a<b>c</b>"}), Extract("div", html, 0));
    for (const int keep : {1, 2, -1}) {
        EXPECT_EQ((Extracted{26, "<div id=1>a<b>c</b></div>"}), Extract("div", html, keep));
    }
}

TEST(ExtractHtmlTag, KeepsNestedElementsOfTheSameName) {
    const std::string html = "<div>a<div>b</div>c</div>";
    EXPECT_EQ((Extracted{15, "a<div>b</div>c"}), Extract("div", html, 0));
    EXPECT_EQ((Extracted{26, html}), Extract("div", html + "<div>d</div>", 1));
    EXPECT_EQ((Extracted{25, "<div>1</div><div>2</div>"}),
              Extract("div", "<div><div>1</div><div>2</div></div>", 0));
}

TEST(ExtractHtmlTag, SkipsLongerNames) {
    EXPECT_EQ((Extracted{2, "2"}), Extract("td", "<tdx>1</tdx><td class=x>2</td>", 0));
    EXPECT_EQ((Extracted{9, "1</tdx>2"}), Extract("td", "<td>1</tdx>2</td>", 0));
}

TEST(ExtractHtmlTag, RequiresABlankATabOrABracketAfterTheName) {
    for (const char *pAfter : {">", " >", " a=b>", "\t>", "\tx>"}) {
        EXPECT_EQ((Extracted{2, "1"}),
                  Extract("td", std::string{"<td"} + pAfter + "1</td" + pAfter, 0));
    }
    for (const char *pAfter : {"\n>", "\r\n>", "/>", "x>", "."}) {
        EXPECT_EQ(kNone, Extract("td", std::string{"<td"} + pAfter + "1</td>", 0));
        EXPECT_EQ(kNone, Extract("td", std::string{"<td>1</td"} + pAfter, 0));
    }
}

TEST(ExtractHtmlTag, IgnoresCase) {
    EXPECT_EQ((Extracted{11, "<Td>1</tD>"}), Extract("TD", "<Td>1</tD>", 1));
}

TEST(ExtractHtmlTag, DoesNotFindAnEmptyElement) {
    EXPECT_EQ(kNone, Extract("b", "<b></b>", 0));
    EXPECT_EQ((Extracted{8, "<b></b>"}), Extract("b", "<b></b>", 1));
    // Only the first element counts, even if a later one is not empty.
    EXPECT_EQ(kNone, Extract("b", "<b></b><b>x</b>", 0));
}

TEST(ExtractHtmlTag, FailsForAMissingOrUnclosedElement) {
    for (const int keep : {0, 1}) {
        EXPECT_EQ(kNone, Extract("b", "", keep));
        EXPECT_EQ(kNone, Extract("b", "<i>b</i>", keep));
        EXPECT_EQ(kNone, Extract("b", "<b>open", keep));
        EXPECT_EQ(kNone, Extract("b", "<b>1<b>2</b>3", keep));
        EXPECT_EQ(kNone, Extract("b", "<b>1</b", keep));
        EXPECT_EQ(kNone, Extract("b", "<b 1</b", keep));
        EXPECT_EQ(kNone, Extract("b", "b>1</b>", keep));
    }
}

TEST(ExtractHtmlTag, CountsStrayClosingTags) {
    EXPECT_EQ(kNone, Extract("b", "</b><b>1</b>", 0));
    EXPECT_EQ((Extracted{2, "2"}), Extract("b", "</b><b>1<b>2</b></b>", 0));
    EXPECT_EQ((Extracted{9, "<b>2</b>"}), Extract("b", "</b><b>1<b>2</b></b>", 1));
}

// A tag ends at the next ">", and all text before that belongs to the tag.
TEST(ExtractHtmlTag, DoesNotUnderstandCommentsAndQuotes) {
    EXPECT_EQ((Extracted{5, "\">x "}), Extract("b", "<b a=\">\">x </b>", 0));
    EXPECT_EQ((Extracted{2, "1"}), Extract("b", "<!-- > --><b>1</b>", 0));
    // "<!-- <b>" is a tag of another name, so the first "</b>" is a stray one.
    EXPECT_EQ(kNone, Extract("b", "<!-- <b>1</b> --><b>2</b>", 0));
}

// The rule in its plainest form: tag after tag.
Extracted ExtractByTheRule(const std::string &tag, const std::string &html, bool keep) {
    const auto named = [&](size_t at) {
        const size_t after = at + tag.size();
        return strncasecmp(html.c_str() + at, tag.c_str(), tag.size()) == 0 &&
               after < html.size() && strchr(" \t>", html[after]) != nullptr;
    };
    int depth = -1;
    size_t start = std::string::npos;
    size_t end = 0;
    for (size_t at = html.find('<'); at != std::string::npos; at = html.find('<', end)) {
        const size_t closing = html.find('>', at);
        if (closing == std::string::npos) {
            return kNone;
        }
        end = closing + 1;
        if (named(at + 1)) {
            if (++depth == 0 && start == std::string::npos) {
                start = keep ? at : end;
            }
        } else if (html[at + 1] == '/' && named(at + 2)) {
            if (--depth == -1 && start != std::string::npos) {
                const std::string text = html.substr(start, (keep ? end : at) - start);
                return text.empty() ? kNone : Extracted{static_cast<int>(text.size()) + 1, text};
            }
        }
    }
    return kNone;
}

TEST(ExtractHtmlTag, CutsWhatTheRuleCuts) {
    std::mt19937 random{14};
    const char *pieces[] = {"<b>", "</b>", "<B x>", "</b >", "<bx>", "<", ">", "t", "/b", "b\t"};
    for (int i = 0; i < 6000; ++i) {
        std::string html;
        for (size_t count = random() % 20; count > 0; --count) {
            html += pieces[random() % std::size(pieces)];
        }
        for (const int keep : {0, 1}) {
            ASSERT_EQ(ExtractByTheRule("b", html, keep != 0), Extract("b", html, keep)) << html;
        }
    }
}

TEST(ExtractHtmlTag, FailsForNull) {
    char *result = nullptr;
    EXPECT_EQ(-1, COM_ExtractHtmlTag(nullptr, "<b>1</b>", &result, 0));
    EXPECT_EQ(-1, COM_ExtractHtmlTag("b", nullptr, &result, 0));
    EXPECT_EQ(-1, COM_ExtractHtmlTag("b", "<b>1</b>", nullptr, 0));
    EXPECT_EQ(nullptr, result);
}

TEST(ExtractHtmlTag, ReadsNothingAfterTheText) {
    const std::string whole = "<td>1</td><div a=\"b\">x<div>y</div></div>";
    for (size_t length = 0; length <= whole.size(); ++length) {
        const std::string cut = whole.substr(0, length);
        EXPECT_EQ(length == whole.size() ? (Extracted{14, "x<div>y</div>"}) : kNone,
                  Extract("div", cut, 0));
        EXPECT_EQ(length == whole.size() ? (Extracted{31, whole.substr(10)}) : kNone,
                  Extract("div", cut, 1));
    }
}

TEST(ExtractHtmlTag, TakesTimeInProportionToTheText) {
    std::string html = "<div>";
    while (html.size() < 4000000) {
        html += "<div><p></div>";
    }
    html += "</div>";
    char *result = nullptr;
    const talvek::test::CpuTime used;
    EXPECT_EQ(static_cast<int>(html.size()) + 1,
              COM_ExtractHtmlTag("div", html.c_str(), &result, 1));
    EXPECT_LT(used.Seconds(), 3);
    free(result);
}

}  // namespace
