#include "common/text.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <malloc.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "support/canary.h"
#include "support/capture.h"
#include "support/cpu_time.h"

namespace {

using namespace talvek::test;

// The rule in its plainest form: every start in turn.
const char *SearchByTheRule(const char *pSrc, const char *pKey) {
    const size_t keySize = strlen(pKey);
    const char *end = pSrc + strlen(pSrc);
    for (const char *at = pSrc; static_cast<size_t>(end - at) >= keySize; ++at) {
        if (strncasecmp(at, pKey, keySize) == 0) {
            return at;
        }
    }
    return nullptr;
}

std::string RandomText(std::mt19937 &random, const std::string &alphabet, size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        text += alphabet[random() % alphabet.size()];
    }
    return text;
}

TEST(StrCaseStr, FindsTheFirstPlaceIgnoringCase) {
    const char *text = "Content-Length: 5, content-length: 6";
    EXPECT_EQ(text, COM_StrCaseStr(text, "CONTENT-LENGTH"));
    EXPECT_EQ(text + 8, COM_StrCaseStr(text, "lENGTH"));
    EXPECT_EQ(text + 35, COM_StrCaseStr(text, "6"));
    EXPECT_EQ(nullptr, COM_StrCaseStr(text, "lengths"));
}

TEST(StrCaseStr, ReturnsNullForNull) {
    EXPECT_EQ(nullptr, COM_StrCaseStr(nullptr, "key"));
    EXPECT_EQ(nullptr, COM_StrCaseStr("text", nullptr));
    EXPECT_EQ(nullptr, COM_StrCaseStr(nullptr, nullptr));
}

TEST(StrCaseStr, FindsAnEmptyKeyAtTheStart) {
    const char *text = "text";
    EXPECT_EQ(text, COM_StrCaseStr(text, ""));
    EXPECT_EQ(text + 4, COM_StrCaseStr(text + 4, ""));
}

TEST(StrCaseStr, DoesNotFindAKeyLongerThanTheText) {
    EXPECT_EQ(nullptr, COM_StrCaseStr("", "a"));
    EXPECT_EQ(nullptr, COM_StrCaseStr("abc", "abcd"));
    const char *text = "abc";
    EXPECT_EQ(text, COM_StrCaseStr(text, "ABC"));
}

TEST(StrCaseStr, TakesTimeInProportionToTheText) {
    const std::string text(500000, 'a');
    const std::string keys[] = {std::string(250000, 'A') + "b", "b" + std::string(250000, 'A'),
                                std::string(125000, 'a') + "b" + std::string(125000, 'a')};
    const CpuTime used;
    for (const std::string &key : keys) {
        EXPECT_EQ(nullptr, COM_StrCaseStr(text.c_str(), key.c_str()));
    }
    // "b" is the rarer letter of the key, and every place of the text has it.
    const std::string hits(500000, 'b');
    for (const size_t before : {125000U, 250000U}) {
        const std::string key = std::string(before, 'B') + "a" + std::string(250000 - before, 'b');
        EXPECT_EQ(nullptr, COM_StrCaseStr(hits.c_str(), key.c_str()));
        EXPECT_EQ(nullptr, COM_StrCaseStr((std::string(300000, '-') + hits).c_str(), key.c_str()));
    }
    EXPECT_LT(used.Seconds(), 5);
}

// Only A to Z have two cases: not their neighbours "@[`{" in ASCII, and no byte above 127 ("Ä" and
// "ä" in ISO 8859-1 are 0xC4 and 0xE4).
TEST(StrCaseStr, FoldsAsciiLettersOnly) {
    for (int a = 1; a < 256; ++a) {
        for (int b = 1; b < 256; ++b) {
            const char text[] = {static_cast<char>(a), 0};
            const char key[] = {static_cast<char>(b), 0};
            const auto fold = [](int c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
            ASSERT_EQ(fold(a) == fold(b), COM_StrCaseStr(text, key) == text) << a << ' ' << b;
        }
    }
}

// Few letters make many near misses and periodic keys.
TEST(StrCaseStr, FindsWhatTheRuleFinds) {
    std::mt19937 random{2};
    const std::string alphabets[] = {
        "a", "aB", "abA", "aAbBcC", "abcdefghijklmnopqrstuvwxyz", "<>/=\" aeZzQ\n\xE4\xC4"};
    for (const std::string &alphabet : alphabets) {
        for (int i = 0; i < 3000; ++i) {
            const GuardedCopy text{RandomText(random, alphabet, random() % 200).c_str()};
            const GuardedCopy key{
                RandomText(random, alphabet, random() % (i % 10 == 0 ? 40 : 8)).c_str()};
            ASSERT_EQ(SearchByTheRule(text.text(), key.text()),
                      COM_StrCaseStr(text.text(), key.text()))
                << text.text() << " : " << key.text();
        }
    }
}

TEST(StrCaseStr, FindsPeriodicKeysInPeriodicTexts) {
    for (size_t period = 1; period <= 6; ++period) {
        const std::string unit = std::string{"aaaaab"}.substr(6 - period);
        std::string body;
        while (body.size() < 6000) {
            body += unit;
        }
        for (size_t keySize = 1; keySize < 40; ++keySize) {
            for (const char *pBreak : {"", "c", "C", "B"}) {
                const std::string key = body.substr(0, keySize) + pBreak;
                const GuardedCopy text{(body + body.substr(0, keySize) + "c").c_str()};
                ASSERT_EQ(SearchByTheRule(text.text(), key.c_str()),
                          COM_StrCaseStr(text.text(), key.c_str()))
                    << unit << " : " << key;
            }
        }
    }
}

// Each of the first 256 hits costs 16 and passes 4 bytes, so the search goes on with two-way
// matching.
TEST(StrCaseStr, FindsEveryShortKeyAfterManyNearMisses) {
    std::mt19937 random{3};
    std::string before;
    for (int i = 0; i < 300; ++i) {
        before += "a.B.";
    }
    for (size_t size = 2; size <= 9; ++size) {
        for (unsigned bits = 0; bits < 1U << size; ++bits) {
            std::string key;
            for (size_t i = 0; i < size; ++i) {
                key += (bits >> i & 1) != 0 ? 'b' : 'a';
            }
            std::string after = RandomText(random, "aAbB", 20);
            for (int i = 0; i < 8; ++i) {
                after += key.substr(random() % size, random() % size);
            }
            const GuardedCopy text{(before + after + key).c_str()};
            ASSERT_EQ(SearchByTheRule(text.text(), key.c_str()),
                      COM_StrCaseStr(text.text(), key.c_str()))
                << after << " : " << key;
        }
    }
}

// Before the match and before the key are the same bytes.
TEST(StrCaseStr, ComparesNothingBeforeTheKey) {
    const std::string key = "2====abab";
    std::string text;
    for (const size_t misses : {0, 300}) {
        for (size_t i = 0; i < misses; ++i) {
            text += "a.B.";
        }
        text += "====abab";
        EXPECT_EQ(text.c_str() + 4 * misses + 4, COM_StrCaseStr(text.c_str(), key.c_str() + 5));
        text.clear();
    }
}

TEST(StrCaseStr, ReadsNothingAfterTheText) {
    const std::string text = "WWW-Authenticate: Digest realm";
    for (size_t length = 0; length <= text.size(); ++length) {
        const GuardedCopy cut{text.substr(0, length).c_str()};
        for (size_t keySize = 1; keySize <= text.size(); ++keySize) {
            const char *found = COM_StrCaseStr(cut.text(), text.substr(0, keySize).c_str());
            ASSERT_EQ(keySize <= length ? cut.text() : nullptr, found);
        }
    }
}

// --- Quoted values ---

using Getter = const char *(*)(const char *, const char *, char *, int);

TEST(GetStrInDoubleQuotes, CopiesTheValueAfterTheKey) {
    CanaryBuf dst{81};
    const char *text = "realm=\"abc\"";
    EXPECT_EQ(text + 6, COM_GetStrInDoubleQuotes(text, "REALM=", dst.text(), 80));
    EXPECT_STREQ("abc", dst.text());
    EXPECT_TRUE(dst.UntouchedFrom(4));
}

TEST(GetStrInDoubleQuotes, TakesTheFirstQuotedTextAnywhereAfterTheKey) {
    CanaryBuf dst{81};
    const char *text = "\"no\" realm=other, qop=\"auth\" \"no\"";
    EXPECT_EQ(text + 11, COM_GetStrInDoubleQuotes(text, "realm=", dst.text(), 80));
    EXPECT_STREQ("auth", dst.text());
}

struct Quotes {
    Getter get;
    char quote;
    const char *name;
};
const Quotes kQuotes[] = {{COM_GetStrInDoubleQuotes, '"', "COM_GetStrInDoubleQuotes"},
                          {COM_GetStrInSingleQuotes, '\'', "COM_GetStrInSingleQuotes"}};

TEST(GetStrInQuotes, MatchesOnlyItsOwnQuote) {
    for (const Quotes &kind : kQuotes) {
        const char other = kind.quote == '"' ? '\'' : '"';
        const std::string text = std::string{"k="} + other + kind.quote + "a" + other + kind.quote;
        CanaryBuf dst{11};
        EXPECT_EQ(text.c_str() + 2, kind.get(text.c_str(), "K=", dst.text(), 10));
        EXPECT_EQ(std::string{"a"} + other, dst.text());
    }
}

// A value shorter than the size fits. A longer one leaves `size` characters and a NUL.
TEST(GetStrInQuotes, WritesAtMostOneByteMoreThanTheSize) {
    for (const Quotes &kind : kQuotes) {
        for (int size = 0; size <= 6; ++size) {
            for (int length = 0; length <= 8; ++length) {
                const std::string value = std::string{"abcdefgh"}.substr(0, length);
                const std::string text = "k=" + (kind.quote + value) + kind.quote;
                const GuardedCopy src{text.c_str()};
                CanaryBuf dst{static_cast<size_t>(size) + 1};
                const char *result = nullptr;
                const Lines log =
                    CaptureLog([&] { result = kind.get(src.text(), "k=", dst.text(), size); });
                const int copied = length < size ? length : size;
                EXPECT_EQ(value.substr(0, static_cast<size_t>(copied)), dst.text());
                EXPECT_EQ(copied > 0 ? src.text() + 2 : nullptr, result);
                if (length >= size) {
                    EXPECT_EQ((Lines{std::string{"COMMON:"} + kind.name +
                                     "(): Warning! overflow (len, size) = (" +
                                     std::to_string(length) + ", " + std::to_string(size) + ")"}),
                              log);
                } else {
                    EXPECT_EQ(Lines{}, log);
                }
            }
        }
    }
}

TEST(GetStrInQuotes, WritesNothingWithANegativeSize) {
    for (const Quotes &kind : kQuotes) {
        for (const int size : {-1, -2, INT_MIN}) {
            const std::string text = std::string{"k="} + kind.quote + "abc" + kind.quote;
            CanaryBuf dst{1};
            const Lines log = CaptureLog(
                [&] { EXPECT_EQ(nullptr, kind.get(text.c_str(), "k=", dst.text(), size)); });
            EXPECT_TRUE(dst.UntouchedFrom(0));
            EXPECT_EQ(
                (Lines{std::string{"COMMON:"} + kind.name +
                       "(): Warning! overflow (len, size) = (3, " + std::to_string(size) + ")"}),
                log);
        }
    }
}

TEST(GetStrInQuotes, DoesNotFindAnEmptyValue) {
    for (const Quotes &kind : kQuotes) {
        const std::string text = std::string{"x="} + kind.quote + kind.quote;
        CanaryBuf dst{5};
        EXPECT_EQ(nullptr, kind.get(text.c_str(), "x=", dst.text(), 4));
        EXPECT_STREQ("", dst.text());
        EXPECT_TRUE(dst.UntouchedFrom(1));
    }
}

TEST(GetStrInQuotes, LeavesTheDestinationUnchangedWhenSomethingIsMissing) {
    for (const Quotes &kind : kQuotes) {
        const std::string quote(1, kind.quote);
        for (const std::string &text : {std::string{""}, std::string{"x="}, "x=" + quote,
                                        "x=" + quote + "abc", "y=" + quote + "abc" + quote}) {
            CanaryBuf dst{5};
            EXPECT_EQ(Lines{}, CaptureLog([&] {
                          EXPECT_EQ(nullptr, kind.get(text.c_str(), "x=", dst.text(), 4));
                      }));
            EXPECT_TRUE(dst.UntouchedFrom(0)) << text;
        }
    }
}

// --- Values up to a blank ---

TEST(GetStrBeforeSpace, CopiesUpToTheNextBlank) {
    CanaryBuf dst{10};
    const char *text = "GET key=v1\tx\n; z";
    EXPECT_EQ(text + 8, COM_GetStrBeforeSpace(text, "KEY=", dst.text(), 10));
    EXPECT_STREQ("v1\tx\n;", dst.text());
}

TEST(GetStrBeforeSpace, AcceptsAnEmptyValue) {
    CanaryBuf dst{4};
    const char *text = "x= y";
    EXPECT_EQ(text + 2, COM_GetStrBeforeSpace(text, "x=", dst.text(), 4));
    EXPECT_STREQ("", dst.text());
}

TEST(GetStrBeforeSpace, IncludesTheNulInTheSize) {
    for (int size = 0; size <= 6; ++size) {
        for (int length = 0; length <= 7; ++length) {
            const std::string value = std::string{"abcdefgh"}.substr(0, length);
            const GuardedCopy src{("k=" + value + " ").c_str()};
            CanaryBuf dst{static_cast<size_t>(size)};
            const char *result = nullptr;
            const Lines log = CaptureLog(
                [&] { result = COM_GetStrBeforeSpace(src.text(), "k=", dst.text(), size); });
            EXPECT_EQ(size > 0 ? src.text() + 2 : nullptr, result);
            if (size > 0) {
                EXPECT_EQ(value.substr(0, static_cast<size_t>(size - 1)), dst.text());
            }
            if (length + 1 > size) {
                EXPECT_EQ(
                    (Lines{"COMMON:COM_GetStrBeforeSpace(): Warning! overflow (len, size) = (" +
                           std::to_string(length + 1) + ", " + std::to_string(size) + ")"}),
                    log);
            } else {
                EXPECT_EQ(Lines{}, log);
            }
        }
    }
}

TEST(GetStrBeforeSpace, FailsWithoutKeyOrBlank) {
    CanaryBuf dst{4};
    for (const char *pText : {"", "k=", "k=abc", "k=abc\t\n", "x=a "}) {
        EXPECT_EQ(nullptr, COM_GetStrBeforeSpace(pText, "k=", dst.text(), 4));
    }
    EXPECT_TRUE(dst.UntouchedFrom(0));
}

// --- Values up to the end of the line ---

TEST(GetStrBeforeEOL, EndsAtTheNearerOfLfAndCr) {
    for (const char *pEnd : {"\n", "\r", "\r\n", "\n\r", "\nx\r", "\rx\n"}) {
        const std::string text = std::string{"Host: a b"} + pEnd + "next\n";
        CanaryBuf dst{10};
        EXPECT_EQ(text.c_str() + 6, COM_GetStrBeforeEOL(text.c_str(), "host: ", dst.text(), 10));
        EXPECT_STREQ("a b", dst.text());
    }
}

TEST(GetStrBeforeEOL, AcceptsAnEmptyLine) {
    CanaryBuf dst{4};
    const char *text = "x=\n";
    EXPECT_EQ(text + 2, COM_GetStrBeforeEOL(text, "x=", dst.text(), 4));
    EXPECT_STREQ("", dst.text());
}

TEST(GetStrBeforeEOL, DoesNotFindALastLineWithoutEnd) {
    CanaryBuf dst{10};
    for (const char *pText : {"", "k=", "k=abc", "\nk=abc", "x=abc\n"}) {
        EXPECT_EQ(Lines{}, CaptureLog([&] {
                      EXPECT_EQ(nullptr, COM_GetStrBeforeEOL(pText, "k=", dst.text(), 10));
                  }));
    }
    EXPECT_TRUE(dst.UntouchedFrom(0));
}

TEST(GetStrBeforeEOL, IncludesTheNulInTheSize) {
    for (int size = 1; size <= 6; ++size) {
        for (int length = 0; length <= 7; ++length) {
            const std::string value = std::string{"abcdefgh"}.substr(0, length);
            const GuardedCopy src{("k=" + value + "\r\n").c_str()};
            CanaryBuf dst{static_cast<size_t>(size)};
            Lines log = CaptureLog([&] {
                EXPECT_EQ(src.text() + 2, COM_GetStrBeforeEOL(src.text(), "k=", dst.text(), size));
            });
            EXPECT_EQ(value.substr(0, static_cast<size_t>(size - 1)), dst.text());
            if (length + 1 > size) {
                EXPECT_EQ((Lines{"COMMON: Warning! overflow (len, size) = (" +
                                 std::to_string(length + 1) + ", " + std::to_string(size) +
                                 ")[k=][" + value.substr(0, static_cast<size_t>(size - 1)) + "]"}),
                          log);
            } else {
                EXPECT_EQ(Lines{}, log);
            }
        }
    }
}

// The log shows what is copied, at most 20 characters.
TEST(GetStrBeforeEOL, LogsTheStartOfATruncatedValue) {
    const std::string value = "abcdefghijklmnopqrstuvwxyz0123456789";
    const std::string text = "k=" + value + "\n";
    const struct {
        int size;
        size_t shown;
    } rows[] = {{20, 19}, {21, 20}, {22, 20}, {30, 20}};
    for (const auto &row : rows) {
        CanaryBuf dst{static_cast<size_t>(row.size)};
        EXPECT_EQ(
            (Lines{"COMMON: Warning! overflow (len, size) = (37, " + std::to_string(row.size) +
                   ")[K=][" + value.substr(0, row.shown) + "]"}),
            CaptureLog([&] { COM_GetStrBeforeEOL(text.c_str(), "K=", dst.text(), row.size); }));
        EXPECT_EQ(value.substr(0, static_cast<size_t>(row.size - 1)), dst.text());
    }
}

// printf ignores the negative precision, so all text after the key is logged.
TEST(GetStrBeforeEOL, FailsWithASizeOfZeroOrLess) {
    for (const int size : {0, -1, INT_MIN}) {
        CanaryBuf dst{1};
        EXPECT_EQ((Lines{"COMMON: Warning! overflow (len, size) = (3, " + std::to_string(size) +
                             ")[k=][ab",
                         "next]"}),
                  CaptureLog([&] {
                      EXPECT_EQ(nullptr, COM_GetStrBeforeEOL("k=ab\nnext", "k=", dst.text(), size));
                  }));
        EXPECT_TRUE(dst.UntouchedFrom(0));
    }
}

// --- Lines ---

TEST(GetLineAfterKey, ReturnsTheLineInANewBlock) {
    const GuardedCopy text{"Location: /x y\r\nServer: z\n"};
    char *line = nullptr;
    EXPECT_EQ(text.text() + 10, COM_GetLineAfterKey(text.text(), "location: ", &line));
    ASSERT_NE(nullptr, line);
    EXPECT_STREQ("/x y", line);
    free(line);
    line = nullptr;
    EXPECT_EQ(text.text() + 24, COM_GetLineAfterKey(text.text(), "Server: ", &line));
    EXPECT_STREQ("z", line);
    free(line);
}

TEST(GetLineAfterKey, ReturnsABlockWithoutSpareRoom) {
    const std::string value(10000, 'v');
    char *line = nullptr;
    EXPECT_NE(nullptr, COM_GetLineAfterKey(("k=" + value + "\n").c_str(), "k=", &line));
    EXPECT_EQ(value, line);
#if !defined(__SANITIZE_ADDRESS__)
    EXPECT_LT(malloc_usable_size(line), 10001u + 64);
#endif
    free(line);
}

TEST(GetLineAfterKey, FailsForAMissingKeyAnEmptyOrAnUnfinishedLine) {
    for (const char *pText : {"", "k=", "k=abc", "k=\n", "k=\r\nx\n", "x=a\n"}) {
        char *line = nullptr;
        EXPECT_EQ(Lines{},
                  CaptureLog([&] { EXPECT_EQ(nullptr, COM_GetLineAfterKey(pText, "k=", &line)); }));
        EXPECT_EQ(nullptr, line) << pText;
    }
}

TEST(GetLineAfterKey, DependsOnTheOldPointerWhenNothingIsAllocated) {
    char held[] = "held";
    char *line = held;
    const char *text = "k=\n";
    EXPECT_EQ(text + 2, COM_GetLineAfterKey(text, "k=", &line));
    EXPECT_EQ(held, line);
    text = "k=abc";
    EXPECT_EQ(text + 2, COM_GetLineAfterKey(text, "k=", &line));
    EXPECT_EQ(held, line);
    EXPECT_EQ(nullptr, COM_GetLineAfterKey(text, "x=", &line));
    EXPECT_EQ(held, line);
}

TEST(GetLineAfterKey, ReplacesThePointerWithoutFreeingIt) {
    char held[] = "held";  // not from malloc: free would abort
    char *line = held;
    const char *text = "k=abc\n";
    EXPECT_EQ(text + 2, COM_GetLineAfterKey(text, "k=", &line));
    ASSERT_NE(held, line);
    EXPECT_STREQ("abc", line);
    EXPECT_STREQ("held", held);
    free(line);
}

TEST(CutLineAfterKey, EndsTheTextAtTheLineEnd) {
    for (const char *pEnd : {"\n", "\r", "\r\n", "\n\r"}) {
        const std::string original = std::string{"a=1"} + pEnd + "B=two words" + pEnd + "c=3";
        const GuardedCopy text{original.c_str()};
        char *value = COM_CutLineAfterKey(text.text(), "b=");
        ASSERT_EQ(text.text() + original.find("two"), value);
        EXPECT_STREQ("two words", value);
        // Only the line end has changed.
        std::string expected = original;
        expected[original.find("words") + 5] = '\0';
        EXPECT_EQ(0, memcmp(expected.data(), text.text(), expected.size()));
    }
}

TEST(CutLineAfterKey, LeavesATextWithoutAValueUnchanged) {
    for (const char *pText : {"", "k=", "k=abc", "k=\nabc", "k=\rabc", "x=a\n"}) {
        const GuardedCopy text{pText};
        EXPECT_EQ(nullptr, COM_CutLineAfterKey(text.text(), "k="));
        EXPECT_STREQ(pText, text.text());
    }
}

// --- XML ---

// The log lines with every address replaced by "%p".
Lines WithoutAddresses(Lines lines) {
    for (std::string &line : lines) {
        for (size_t at = line.find("0x"); at != std::string::npos; at = line.find("0x")) {
            const size_t end = line.find_first_not_of("0123456789abcdefx", at);
            line.replace(at, end - at, "%p");
        }
    }
    return lines;
}

TEST(GetXMLData, CopiesTheTextBetweenTheTags) {
    CanaryBuf dst{10};
    const char *text = "<r><A>v w</A></r>";
    const char *result = nullptr;
    const Lines log = CaptureLog([&] { result = COM_GetXMLData(text, "a", dst.text(), 10); });
    EXPECT_EQ(text + 6, result);
    EXPECT_STREQ("v w", dst.text());
    EXPECT_TRUE(dst.UntouchedFrom(4));
    char addresses[200];
    snprintf(addresses, sizeof addresses,
             "COMMON:COM_GetXMLData(): (pHead, pTail, pStr, len) = (%p, %p, %p, 4/10)",
             static_cast<const void *>(text + 6), static_cast<const void *>(text + 9),
             static_cast<const void *>(dst.text()));
    EXPECT_EQ((Lines{addresses, "COMMON:COM_GetXMLData(): [a] = [v w] (4 bytes)"}), log);
}

TEST(GetXMLData, DoesNotFindAStartTagWithAttributes) {
    CanaryBuf dst{10};
    EXPECT_EQ((Lines{"COMMON:COM_GetXMLData(): [a] not found in [<a x=1>v</a>]"}), CaptureLog([&] {
                  EXPECT_EQ(nullptr, COM_GetXMLData("<a x=1>v</a>", "a", dst.text(), 10));
              }));
    EXPECT_TRUE(dst.UntouchedFrom(0));
}

TEST(GetXMLData, LogsAMissingClosingTag) {
    CanaryBuf dst{10};
    EXPECT_EQ((Lines{"COMMON:COM_GetXMLData(): No xml tail found!"}), CaptureLog([&] {
                  EXPECT_EQ(nullptr, COM_GetXMLData("<a>v</a", "a", dst.text(), 10));
              }));
    EXPECT_TRUE(dst.UntouchedFrom(0));
}

// <A> ends at position 10 and </a> begins at 2, so the length is 2 - 10 + 1.
TEST(GetXMLData, RefusesAClosingTagBeforeTheOpeningOne) {
    CanaryBuf dst{10};
    strcpy(dst.text(), "before");
    EXPECT_EQ((Lines{"COMMON:COM_GetXMLData(): [a] = [before] (-7 bytes)"}), CaptureLog([&] {
                  EXPECT_EQ(nullptr, COM_GetXMLData("v </a> <A>v</a>", "a", dst.text(), 10));
              }));
    EXPECT_STREQ("before", dst.text());
}

// 0 - 7 + 1 bytes; the destination has no NUL.
TEST(GetXMLData, LogsNoMoreOfTheDestinationThanItsSize) {
    const CanaryBuf dst{4, 'x'};
    EXPECT_EQ((Lines{"COMMON:COM_GetXMLData(): [a] = [xxxx] (-6 bytes)"}),
              CaptureLog([&] { COM_GetXMLData("</a><a>", "a", dst.text(), 4); }));
    EXPECT_EQ((Lines{"COMMON:COM_GetXMLData(): [a] = [] (-6 bytes)"}),
              CaptureLog([&] { COM_GetXMLData("</a><a>", "a", dst.text(), -1); }));
}

TEST(GetXMLData, TakesTheFirstTagsAndIgnoresNesting) {
    CanaryBuf dst{30};
    const char *text = "<a>1<a>2</a>3</a><a>4</a>";
    CaptureLog([&] { EXPECT_EQ(text + 3, COM_GetXMLData(text, "a", dst.text(), 30)); });
    EXPECT_STREQ("1<a>2", dst.text());
}

TEST(GetXMLData, IncludesTheNulInTheSize) {
    for (int size = -1; size <= 6; ++size) {
        for (int length = 0; length <= 7; ++length) {
            const std::string value = std::string{"abcdefgh"}.substr(0, length);
            const GuardedCopy src{("<t>" + value + "</t>").c_str()};
            CanaryBuf dst{static_cast<size_t>(size > 0 ? size : 0)};
            const char *result = nullptr;
            const Lines log = WithoutAddresses(
                CaptureLog([&] { result = COM_GetXMLData(src.text(), "t", dst.text(), size); }));
            const int needed = length + 1;
            const int taken = needed < size ? needed : size;
            const std::string copied =
                taken > 0 ? value.substr(0, static_cast<size_t>(taken - 1)) : "";
            EXPECT_EQ(size > 0 ? src.text() + 3 : nullptr, result);
            if (size > 0) {
                EXPECT_EQ(copied, dst.text());
            }
            const std::string of = std::to_string(needed);
            const std::string room = std::to_string(size);
            Lines expected{"COMMON:COM_GetXMLData(): (pHead, pTail, pStr, len) = (%p, %p, %p, " +
                           of + "/" + room + ")"};
            if (needed > size) {
                expected.push_back("COMMON:COM_GetXMLData(): Warning! overflow (len, size) = (" +
                                   of + ", " + room + ")");
            }
            expected.push_back("COMMON:COM_GetXMLData(): [t] = [" + copied + "] (" +
                               std::to_string(taken) + " bytes)");
            EXPECT_EQ(expected, log);
        }
    }
}

// The pattern buffer has 256 bytes. "</tag>" needs four more than the tag, "<tag>" three more.
TEST(GetXMLData, FindsTagsOfUpTo252Characters) {
    static_assert(COM_XML_DATA_TAG_MAX == 252);
    for (size_t length = 251; length <= 255; ++length) {
        const std::string tag(length, 't');
        const std::string text = "<" + tag + ">v</" + tag + ">";
        CanaryBuf dst{4};
        const char *result = nullptr;
        const Lines log =
            CaptureLog([&] { result = COM_GetXMLData(text.c_str(), tag.c_str(), dst.text(), 4); });
        EXPECT_EQ(length <= COM_XML_DATA_TAG_MAX ? text.c_str() + length + 2 : nullptr, result);
        if (length == 253) {
            EXPECT_EQ((Lines{"COMMON:COM_GetXMLData(): No xml tail found!"}), log);
        } else if (length > 253) {
            EXPECT_EQ((Lines{"COMMON:COM_GetXMLData(): [" + tag + "] not found in [" + text + "]"}),
                      log);
        }
    }
}

TEST(GetXMLAttribute, CopiesTheAttributesWithTheirLeadingBlank) {
    CanaryBuf dst{20};
    const char *text = "<r><item name=\"k\"><item b=\"2\">";
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  EXPECT_EQ(text + 18, COM_GetXMLAttribute(text, "ITEM", dst.text(), 20));
              }));
    EXPECT_STREQ(" name=\"k\"", dst.text());
}

// A longer tag name matches too, and the attributes end at the first ">", even inside quotes.
TEST(GetXMLAttribute, DoesNotUnderstandTagsAndQuotes) {
    CanaryBuf dst{20};
    const char *text = "<items a=\"x>y\">";
    EXPECT_EQ(text + 12, COM_GetXMLAttribute(text, "item", dst.text(), 20));
    EXPECT_STREQ("s a=\"x", dst.text());
}

TEST(GetXMLAttribute, AcceptsATagWithoutAttributes) {
    CanaryBuf dst{4};
    const char *text = "<a>";
    EXPECT_EQ(text + 3, COM_GetXMLAttribute(text, "a", dst.text(), 4));
    EXPECT_STREQ("", dst.text());
}

TEST(GetXMLAttribute, IncludesTheNulInTheSize) {
    for (int size = -1; size <= 6; ++size) {
        for (int length = 0; length <= 7; ++length) {
            const std::string value = std::string{" bcdefgh"}.substr(0, length);
            const GuardedCopy src{("<t" + value + ">").c_str()};
            CanaryBuf dst{static_cast<size_t>(size > 0 ? size : 0)};
            const char *result = nullptr;
            const Lines log = CaptureLog(
                [&] { result = COM_GetXMLAttribute(src.text(), "t", dst.text(), size); });
            EXPECT_EQ(size > 0 ? src.text() + length + 3 : nullptr, result);
            if (size > 0) {
                EXPECT_EQ(value.substr(0, static_cast<size_t>(size - 1)), dst.text());
            }
            if (length + 1 > size) {
                EXPECT_EQ((Lines{"COMMON:COM_GetXMLAttribute(): Warning! overflow (len, size) = (" +
                                 std::to_string(length + 1) + ", " + std::to_string(size) + ")"}),
                          log);
            } else {
                EXPECT_EQ(Lines{}, log);
            }
        }
    }
}

TEST(GetXMLAttribute, FailsWithoutTagOrBracket) {
    CanaryBuf dst{4};
    for (const char *pText : {"", "<", "<b>", "a>", "<a", "<a x=1"}) {
        EXPECT_EQ(Lines{}, CaptureLog([&] {
                      EXPECT_EQ(nullptr, COM_GetXMLAttribute(pText, "a", dst.text(), 4));
                  }));
    }
    EXPECT_TRUE(dst.UntouchedFrom(0));
}

TEST(GetXMLAttribute, FindsTagsOfUpTo254Characters) {
    static_assert(COM_XML_ATTRIBUTE_TAG_MAX == 254);
    for (size_t length = 253; length <= 256; ++length) {
        const std::string tag(length, 't');
        const std::string text = "<" + tag + " a>";
        CanaryBuf dst{4};
        EXPECT_EQ(length <= COM_XML_ATTRIBUTE_TAG_MAX ? text.c_str() + text.size() : nullptr,
                  COM_GetXMLAttribute(text.c_str(), tag.c_str(), dst.text(), 4));
    }
}

// --- Rules of all scraping functions ---

TEST(Scraping, ReturnsNullForNullWithoutALogLine) {
    const Getter getters[] = {COM_GetStrInDoubleQuotes, COM_GetStrInSingleQuotes,
                              COM_GetStrBeforeSpace,    COM_GetStrBeforeEOL,
                              COM_GetXMLData,           COM_GetXMLAttribute};
    // With valid arguments each getter finds a value for "k" here.
    const char *text = "<k a=\"v\" 'w' \n><k>v</k>";
    EXPECT_EQ(Lines{}, CaptureLog([&] {
                  char dst[40];
                  for (const Getter get : getters) {
                      EXPECT_EQ(nullptr, get(nullptr, "k", dst, 39));
                      EXPECT_EQ(nullptr, get(text, nullptr, dst, 39));
                      EXPECT_EQ(nullptr, get(text, "k", nullptr, 39));
                      EXPECT_EQ(nullptr, get(nullptr, nullptr, nullptr, 0));
                  }
                  char *line = nullptr;
                  EXPECT_EQ(nullptr, COM_GetLineAfterKey(nullptr, "k", &line));
                  EXPECT_EQ(nullptr, COM_GetLineAfterKey(text, nullptr, &line));
                  EXPECT_EQ(nullptr, COM_GetLineAfterKey(text, "k", nullptr));
                  EXPECT_EQ(nullptr, line);
                  EXPECT_EQ(nullptr, COM_CutLineAfterKey(nullptr, "k"));
                  EXPECT_EQ(nullptr, COM_CutLineAfterKey(dst, nullptr));
              }));
}

TEST(Scraping, FindsAnEmptyKeyAtTheStartOfTheText) {
    char dst[10];
    const char *text = "v w\n";
    EXPECT_EQ(text, COM_GetStrBeforeSpace(text, "", dst, 10));
    EXPECT_STREQ("v", dst);
    EXPECT_EQ(text, COM_GetStrBeforeEOL(text, "", dst, 10));
    EXPECT_STREQ("v w", dst);
}

// A header block truncated at every length: a value is found only if it is complete, and no byte
// after the text is read.
TEST(Scraping, ReadsNothingAfterTheText) {
    const std::string whole =
        "HTTP/1.1 200 OK\r\nKey=\"a b\" 'c' d\r\n<Key x=\"1\"/><Key>v</Key>\r\n";
    const Getter getters[] = {COM_GetStrInDoubleQuotes, COM_GetStrInSingleQuotes,
                              COM_GetStrBeforeSpace,    COM_GetStrBeforeEOL,
                              COM_GetXMLData,           COM_GetXMLAttribute};
    for (const Getter get : getters) {
        bool found = false;
        for (size_t length = 0; length <= whole.size(); ++length) {
            const GuardedCopy text{whole.substr(0, length).c_str()};
            CanaryBuf dst{31};
            CaptureLog([&] {
                const char *result = get(text.text(), "key", dst.text(), 30);
                EXPECT_TRUE(result != nullptr || !found) << "found with less, not with " << length;
                found = result != nullptr;
                if (found) {
                    EXPECT_GE(result, text.text());
                    EXPECT_LE(result, text.text() + length);
                    EXPECT_LE(strlen(dst.text()), 30u);
                }
            });
        }
        EXPECT_TRUE(found);
    }
    for (size_t length = 0; length <= whole.size(); ++length) {
        const GuardedCopy text{whole.substr(0, length).c_str()};
        char *line = nullptr;
        COM_GetLineAfterKey(text.text(), "key=", &line);
        EXPECT_EQ(length >= whole.find("\r\n<") + 1, line != nullptr);
        free(line);
        EXPECT_EQ(length >= whole.find("\r\n<") + 1,
                  COM_CutLineAfterKey(text.text(), "key=") != nullptr);
    }
}

// --- Two numbers ---

struct Numbers {
    int count;
    int first;
    int second;
    bool operator==(const Numbers &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Numbers &n) {
    return out << n.count << ": " << n.first << ", " << n.second;
}

constexpr int kUnset = -77;

Numbers Read(const std::string &text) {
    const GuardedCopy bytes{text.data(), text.size()};  // without a NUL
    Numbers n{0, kUnset, kUnset};
    n.count = COM_GetTwoNumbers(bytes.text(), static_cast<int>(text.size()), &n.first, &n.second);
    return n;
}

TEST(GetTwoNumbers, ReadsTheFirstTwo) {
    EXPECT_EQ((Numbers{2, 640, 480}), Read("640x480;"));
    EXPECT_EQ((Numbers{2, 640, 480}), Read("size 640 by 480 at 25"));
    EXPECT_EQ((Numbers{2, 1, 2}), Read(std::string{"1\0"
                                                   "2\0",
                                                   4}));
}

TEST(GetTwoNumbers, ReportsASecondNumberAtTheEnd) {
    EXPECT_EQ((Numbers{2, 640, 480}), Read("640x480"));
    EXPECT_EQ((Numbers{2, 640, 0}), Read("640 +"));
}

TEST(GetTwoNumbers, DoesNotReportASingleNumberAtTheEnd) {
    EXPECT_EQ((Numbers{0, kUnset, kUnset}), Read("640"));
    EXPECT_EQ((Numbers{1, 640, kUnset}), Read("640;"));
    EXPECT_EQ((Numbers{0, kUnset, kUnset}), Read("abc"));
}

TEST(GetTwoNumbers, AcceptsASignOnlyAtTheStartOfANumber) {
    EXPECT_EQ((Numbers{2, -5, 3}), Read("-5,+3;"));
    EXPECT_EQ((Numbers{2, 5, 3}), Read("5-3;"));
    EXPECT_EQ((Numbers{2, 5, -3}), Read("5--3;"));
    EXPECT_EQ((Numbers{2, 0, 7}), Read("- 7;"));
    EXPECT_EQ((Numbers{2, 0, 5}), Read("+-5;"));
}

// strtol, with its 32 bits on the board, does the same.
TEST(GetTwoNumbers, ClampsNumbersTo32Bits) {
    EXPECT_EQ((Numbers{2, INT_MAX, INT_MIN}), Read("2147483647 -2147483648 "));
    EXPECT_EQ((Numbers{2, INT_MAX, INT_MIN}), Read("2147483648 -2147483649 "));
    EXPECT_EQ((Numbers{2, INT_MAX, INT_MIN}),
              Read(std::string(1000, '9') + " -" + std::string(1000, '9')));
}

TEST(GetTwoNumbers, ReadsNumbersOfAnyLength) {
    for (const size_t zeros : {29, 30, 31, 32, 33, 1000}) {
        EXPECT_EQ((Numbers{2, 5, -6}),
                  Read(std::string(zeros, '0') + "5 -" + std::string(zeros, '0') + "6 "));
    }
}

// The rule in its plainest form: a run is collected, and the character that ends it is dropped.
Numbers ReadByTheRule(const std::string &text) {
    Numbers n{0, kUnset, kUnset};
    std::string run;
    for (const char c : text) {
        if (isdigit(static_cast<unsigned char>(c)) || (run.empty() && (c == '+' || c == '-'))) {
            run += c;
        } else if (!run.empty()) {
            (n.count == 0 ? n.first : n.second) =
                static_cast<int>(strtol(run.c_str(), nullptr, 10));
            run.clear();
            if (++n.count == 2) {
                return n;
            }
        }
    }
    if (n.count == 1 && !run.empty()) {
        n.second = static_cast<int>(strtol(run.c_str(), nullptr, 10));
        n.count = 2;
    }
    return n;
}

TEST(GetTwoNumbers, ReadsWhatTheRuleReads) {
    std::mt19937 random{6};
    for (int i = 0; i < 5000; ++i) {
        const std::string text = RandomText(random, "0159+-x", random() % 9);
        ASSERT_EQ(ReadByTheRule(text), Read(text)) << text;
    }
}

TEST(GetTwoNumbers, ReadsNothingFromNoBytes) {
    int first = kUnset;
    int second = kUnset;
    EXPECT_EQ(0, COM_GetTwoNumbers("1 2 ", 0, &first, &second));
    EXPECT_EQ(0, COM_GetTwoNumbers("1 2 ", -1, &first, &second));
    EXPECT_EQ(0, COM_GetTwoNumbers("1 2 ", INT_MIN, &first, &second));
    EXPECT_EQ(0, COM_GetTwoNumbers(nullptr, 4, &first, &second));
    EXPECT_EQ(kUnset, first);
    EXPECT_EQ(kUnset, second);
}

TEST(GetTwoNumbers, AcceptsNullForANumber) {
    int number = kUnset;
    EXPECT_EQ(2, COM_GetTwoNumbers("1 2 ", 4, nullptr, &number));
    EXPECT_EQ(2, number);
    EXPECT_EQ(2, COM_GetTwoNumbers("1 2", 3, &number, nullptr));
    EXPECT_EQ(1, number);
}

TEST(GetTwoNumbers, StaysWithinItsBytes) {
    const std::string text = "a-12x+34;";
    const Numbers expected[] = {{0, kUnset, kUnset}, {0, kUnset, kUnset}, {0, kUnset, kUnset},
                                {0, kUnset, kUnset}, {0, kUnset, kUnset}, {1, -12, kUnset},
                                {2, -12, 0},         {2, -12, 3},         {2, -12, 34},
                                {2, -12, 34}};
    for (size_t length = 0; length <= text.size(); ++length) {
        EXPECT_EQ(expected[length], Read(text.substr(0, length))) << length;
    }
}

// --- Replacement ---

std::string Replace(const std::string &text, const char *pOld, const char *pNew) {
    char *buf = COM_ReplaceStr(strdup(text.c_str()), pOld, pNew);
    std::string result{buf};
    free(buf);
    return result;
}

// The rule in its plainest form: one occurrence after the other, each search from the last one.
std::string ReplaceByTheRule(std::string text, const std::string &old, const std::string &with) {
    for (size_t at = text.find(old); at != std::string::npos; at = text.find(old, at)) {
        text.replace(at, old.size(), with);
    }
    return text;
}

TEST(ReplaceStr, GrowsAndShrinks) {
    EXPECT_EQ("a::b::c", Replace("a-b-c", "-", "::"));
    EXPECT_EQ("a-b-c", Replace("a::b::c", "::", "-"));
    EXPECT_EQ("a+b+c", Replace("a-b-c", "-", "+"));
    EXPECT_EQ("abc", Replace("-a-b-c-", "-", ""));
    EXPECT_EQ("", Replace("---", "-", ""));
}

TEST(ReplaceStr, KeepsTheBlockUnlessItGrows) {
    for (const char *pNew : {"", "-", "==", "xx"}) {
        char *buf = strdup("a::b::c");
        EXPECT_EQ(buf, COM_ReplaceStr(buf, "::", pNew));
        free(buf);
    }
    char *buf = strdup("abc");
    EXPECT_EQ(buf, COM_ReplaceStr(buf, "d", "long replacement"));
    EXPECT_STREQ("abc", buf);
    free(buf);
}

TEST(ReplaceStr, MatchesCase) {
    EXPECT_EQ("aXA", Replace("abA", "b", "X"));
    EXPECT_EQ("abA", Replace("abA", "B", "X"));
}

TEST(ReplaceStr, FindsMatchesThatBeginInTheReplacement) {
    EXPECT_EQ("aa", Replace("aabb", "ab", "a"));
    EXPECT_EQ("ab", Replace("aab", "ab", "b"));  // the text before the replacement is finished
    EXPECT_EQ("xxxa", Replace("xaaaaa", "aaa", "xa"));
}

// The timer counts the processor time of the child, so it ends the child inside the call.
TEST(ReplaceStr, NeverEndsIfTheNewTextContainsTheOldOne) {
    const pid_t child = fork();
    if (child == 0) {
        const struct itimerval limit = {{0, 0}, {0, 200'000}};
        setitimer(ITIMER_VIRTUAL, &limit, nullptr);
        free(COM_ReplaceStr(strdup("a-b"), "-", "-"));
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGVTALRM, WTERMSIG(status));
}

TEST(ReplaceStr, LeavesTheTextUnchangedForEmptyOrNull) {
    char *buf = strdup("abc");
    EXPECT_EQ(buf, COM_ReplaceStr(buf, "", "x"));
    EXPECT_EQ(buf, COM_ReplaceStr(buf, "", ""));
    EXPECT_EQ(buf, COM_ReplaceStr(buf, nullptr, "x"));
    EXPECT_EQ(buf, COM_ReplaceStr(buf, "a", nullptr));
    EXPECT_STREQ("abc", buf);
    free(buf);
    EXPECT_EQ(nullptr, COM_ReplaceStr(nullptr, "a", "b"));
}

TEST(ReplaceStr, ReplacesWhatTheRuleReplaces) {
    std::mt19937 random{5};
    for (int i = 0; i < 30000; ++i) {
        const std::string text = RandomText(random, "abc", random() % (i % 50 == 0 ? 2000 : 40));
        const std::string old = RandomText(random, "abc", random() % 4 + 1);
        const std::string with = RandomText(random, "abcd", random() % 7);
        if (with.find(old) == std::string::npos) {
            ASSERT_EQ(ReplaceByTheRule(text, old, with), Replace(text, old.c_str(), with.c_str()))
                << text << " : " << old << " -> " << with;
        }
    }
}

TEST(ReplaceStr, ReturnsABlockWithoutSpareRoom) {
    std::string text;
    for (int i = 0; i < 10000; ++i) {
        text += "-x";
    }
    char *buf = COM_ReplaceStr(strdup(text.c_str()), "-", "::::");
    EXPECT_EQ(50000u, strlen(buf));
#if !defined(__SANITIZE_ADDRESS__)
    EXPECT_LT(malloc_usable_size(buf), 50001u + 64) << "has spare room";
#endif
    free(buf);
}

// 200,000 occurrences in 400 kB: moving the rest of the text for each would move about 40 GB.
TEST(ReplaceStr, TakesTimeInProportionToTheText) {
    std::string text;
    for (int i = 0; i < 200000; ++i) {
        text += "-x";
    }
    const talvek::test::CpuTime used;
    EXPECT_EQ(800000u, Replace(text, "-", ":::").size());
    EXPECT_EQ(200000u, Replace(text, "-", "").size());
    EXPECT_LT(used.Seconds(), 3);
}

}  // namespace
