// Characters, also in a program whose locale folds case differently from ASCII.

#include "base/characters.h"

#include <ctype.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "common/file.h"
#include "common/html.h"
#include "common/media.h"
#include "common/text.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using talvek::BeginsIgnoringCase;
using talvek::EqualsIgnoringCase;
using namespace talvek::test;

TEST(Characters, FoldsTheTwentySixLettersAlone) {
    for (int code = 0; code < 256; ++code) {
        const char c = static_cast<char>(code);
        const bool upper = code >= 0x41 && code <= 0x5A;
        EXPECT_EQ(upper ? static_cast<char>(code + 0x20) : c, talvek::LowerCase(c)) << code;
    }
}

TEST(Characters, AreClassifiedAsInTheCLocale) {
    for (int code = 0; code < 256; ++code) {
        const char c = static_cast<char>(code);
        EXPECT_EQ(isdigit(code) != 0, talvek::IsDigit(c)) << code;
        EXPECT_EQ(isalpha(code) != 0, talvek::IsLetter(c)) << code;
        EXPECT_EQ(isspace(code) != 0, talvek::IsSpace(c)) << code;
        const int value = isxdigit(code) != 0 ? std::stoi(std::string(1, c), nullptr, 16) : -1;
        EXPECT_EQ(value, talvek::HexValue(c)) << code;
    }
}

TEST(Characters, EndsWithTheShorterText) {
    EXPECT_TRUE(BeginsIgnoringCase("Text", "tEXTile", 4));
    EXPECT_FALSE(BeginsIgnoringCase("Text", "tEXTile", 5));
    EXPECT_TRUE(BeginsIgnoringCase("", "x", 0));
    EXPECT_FALSE(BeginsIgnoringCase("", "x", 1));
    EXPECT_TRUE(EqualsIgnoringCase("Text", "tEXT"));
    EXPECT_FALSE(EqualsIgnoringCase("Text", "tEX"));
    EXPECT_FALSE(EqualsIgnoringCase("Tex", "tEXT"));
    EXPECT_TRUE(EqualsIgnoringCase("", ""));
}

// Turkish has an i with a dot and an i without, each in both cases. 0xD6 and 0xF6 are the two cases
// of an O with two dots.
TEST(Characters, IsTheSameInEveryLocale) {
    if (access("/usr/share/i18n/locales/tr_TR", R_OK) != 0) {
        GTEST_SKIP() << "the sources of the locales are not installed (packages.txt)";
    }
    const TempDir dir;
    RunCommand("localedef --no-archive -i tr_TR -f ISO-8859-9 " + (dir / "tr_TR.ISO-8859-9"));
    RunInPrivateWorld(kMounts, [&dir] {
        MountTmpfs("/var");
        setenv("LOCPATH", dir.path().c_str(), 1);
        if (setlocale(LC_ALL, "tr_TR.ISO-8859-9") == nullptr) {
            GTEST_SKIP() << "this C library does not read the locales made here";
        }
        ASSERT_NE('i', tolower('I'));
        ASSERT_EQ(0xF6, tolower(0xD6));

        EXPECT_TRUE(EqualsIgnoringCase("LI", "li"));
        EXPECT_FALSE(EqualsIgnoringCase("\xD6", "\xF6"));
        EXPECT_NE(nullptr, COM_StrCaseStr("<TITLE>", "title"));
        EXPECT_EQ(nullptr, COM_StrCaseStr("\xD6", "\xF6"));

        char *item = nullptr;
        EXPECT_EQ(2, COM_ExtractHtmlTag("li", "<ul><LI>x</LI></ul>", &item, 0));
        free(item);
        item = nullptr;
        EXPECT_EQ(-1, COM_ExtractHtmlTag("\xF6", "<\xD6>x</\xD6>", &item, 0));

        int second = 0;
        int id = -1;
        EXPECT_EQ(0, COM_GetAudioCodecId("pcma", &second, &id));
        EXPECT_EQ(6, id);

        WriteFile("/var/settings", "WIFI=on\n\xD6=1\n");
        tFileItem items[] = {{4, "wifi", "wifi=off"}, {1, "\xF6", "none"}};
        tFileItemRequest request = {2, 0, 0, 0, items};
        EXPECT_EQ(
            "", Capture([&] { EXPECT_EQ(1, COM_ReplaceItemsInFile("/var/settings", &request)); }));
        EXPECT_EQ("wifi=off\n\xD6=1\n", ReadFile("/var/settings"));
    });
}

}  // namespace
