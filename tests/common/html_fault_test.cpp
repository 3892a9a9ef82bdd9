#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "common/html.h"
#include "support/capture.h"
#include "support/faults.h"

namespace {

using namespace talvek::test;

// A short text grows by one byte at a time, so the nth growth that fails leaves n characters.
TEST(StripHtmlCodeFault, KeepsTheTextUpToTheFailure) {
    for (int nth = 1; nth < 7; ++nth) {
        std::string source = "a<b>bold</b><br>c";
        const std::string whole = "abold\nc";
        char *result = nullptr;
        const long blocks = HeldBlocks();
        const std::string count = std::to_string(nth);
        EXPECT_EQ((Lines{"COMMON:COM_ReallocAndCopyBuf(): REALLOC(" + std::to_string(nth + 1) +
                             ") failed : Cannot allocate memory",
                         "COMMON:COM_StripHtmlCode(): COM_ReallocAndCopyBuf(" + count + ") error"}),
                  CaptureLog([&] {
                      const Fault fault{"realloc", nth, ENOMEM};
                      EXPECT_EQ(nth + 1, COM_StripHtmlCode(source.data(), &result));
                  }));
        EXPECT_EQ(whole.substr(0, static_cast<size_t>(nth)), result);
        // The newline is written to the source before it is appended to the text.
        EXPECT_EQ(nth >= 5, source.find('\n') != std::string::npos);
        free(result);
        EXPECT_EQ(blocks, HeldBlocks());
    }
}

TEST(StripHtmlCodeFault, FailsWithoutMemoryForTheFirstCharacter) {
    char source[] = "abc";
    char *result = nullptr;
    EXPECT_EQ((Lines{"COMMON:COM_ReallocAndCopyBuf(): REALLOC(1) failed : Cannot allocate memory",
                     "COMMON:COM_StripHtmlCode(): COM_ReallocAndCopyBuf(0) error"}),
              CaptureLog([&] {
                  const Fault fault{"realloc", 0, ENOMEM};
                  EXPECT_EQ(-1, COM_StripHtmlCode(source, &result));
              }));
    EXPECT_EQ(nullptr, result);
}

TEST(StripHtmlCodeFault, ReplacesTheLastCharacterWithoutMemoryForTheNul) {
    char source[] = "abc";
    char *result = nullptr;
    EXPECT_EQ((Lines{"COMMON:COM_ReallocAndCopyBuf(): REALLOC(4) failed : Cannot allocate memory",
                     "COMMON:COM_StripHtmlCode(): COM_ReallocAndCopyBuf(4) error"}),
              CaptureLog([&] {
                  const Fault fault{"realloc", 3, ENOMEM};
                  EXPECT_EQ(3, COM_StripHtmlCode(source, &result));
              }));
    EXPECT_STREQ("ab", result);
    free(result);
}

// After the first 64 characters more room than needed is requested. If that fails, nothing is
// logged.
TEST(StripHtmlCodeFault, WorksWithoutSpareRoom) {
    for (int nth = 64; nth < 70; ++nth) {
        std::string source = "<p>" + std::string(200, 'x') + "</p><p>" + std::string(300, 'y');
        char *result = nullptr;
        EXPECT_EQ(Lines{}, CaptureLog([&] {
                      const Fault fault{"realloc", nth, ENOMEM};
                      EXPECT_EQ(501, COM_StripHtmlCode(source.data(), &result));
                  }));
        EXPECT_EQ(std::string(200, 'x') + std::string(300, 'y'), result);
        free(result);
    }
}

TEST(StripHtmlCodeFault, ReturnsATextWhateverFails) {
    EXPECT_GE(EveryCallFails(ENOMEM,
                             [] {
                                 std::string source =
                                     "<p>" + std::string(70, 'x') + "<br>" + std::string(200, 'y');
                                 char *result = nullptr;
                                 const int count = COM_StripHtmlCode(source.data(), &result);
                                 if (count > 0) {
                                     EXPECT_EQ(count - 1, static_cast<int>(strlen(result)));
                                 }
                                 free(result);
                             }),
              66);
}

TEST(ExtractHtmlTagFault, LogsThatThereIsNoMemory) {
    char *result = nullptr;
    EXPECT_EQ((Lines{"COMMON:COM_ExtractHtmlTag(): CALLOC(5) fail : Cannot allocate memory"}),
              CaptureLog([&] {
                  const Fault fault{"calloc", 0, ENOMEM};
                  EXPECT_EQ(-1, COM_ExtractHtmlTag("b", "<b>text</b>", &result, 0));
              }));
    EXPECT_EQ(nullptr, result);
}

}  // namespace
