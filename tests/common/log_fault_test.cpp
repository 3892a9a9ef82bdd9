#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "common/log.h"
#include "support/capture.h"
#include "support/faults.h"

namespace {

using namespace talvek::test;

TEST(LogFault, WritesNothingWithoutMemory) {
    EXPECT_EQ("", Capture([] {
                  const long blocks = HeldBlocks();
                  const Fault fault{"malloc", 0, ENOMEM};
                  EXPECT_EQ(-1, COM_Log("COMMON", 1, nullptr, "text\n"));
                  EXPECT_EQ(blocks, HeldBlocks());
              }));
}

TEST(LogFault, WritesFailedToPrintWithoutMemoryForALongMessage) {
    const std::string text(256, 'x');
    int count = 0;
    EXPECT_EQ("COMMON,1:func(): Failed to print", Capture([&] {
                  const long blocks = HeldBlocks();
                  const Fault fault{"realloc", 0, ENOMEM};
                  count = COM_Log("COMMON", 1, "func", "%s", text.c_str());
                  EXPECT_EQ(blocks, HeldBlocks());
              }));
    EXPECT_EQ(32, count);
    EXPECT_EQ("\033[33mCOMMON,1:func(): Failed to print\033[0m", Capture([&] {
                  const Fault fault{"realloc", 0, ENOMEM};
                  COM_LogColor("COMMON", 1, "func", "%s", text.c_str());
              }));
    // This line always has the form with a function name.
    EXPECT_EQ("COMMON,1:(null)(): Failed to print", Capture([&] {
                  const Fault fault{"realloc", 0, ENOMEM};
                  COM_Log("COMMON", 1, nullptr, "%s", text.c_str());
              }));
}

TEST(LogFault, GrowsOnlyForMessagesOf256CharactersOrMore) {
    Capture([] {
        const Fault fault{"realloc", 0, ENOMEM};
        EXPECT_EQ(255 + 10, COM_Log("COMMON", 1, nullptr, "%s", std::string(255, 'x').c_str()));
        EXPECT_FALSE(Fault::Tripped());
    });
}

TEST(LogFault, FailsWithoutAClockOrItsConversion) {
    for (const char *pCall : {"gettimeofday", "gmtime_r"}) {
        EXPECT_EQ("", Capture([&] {
                      const Fault fault{pCall, 0, EFAULT};
                      EXPECT_EQ(-1, COM_PrintTimeStamp("COMMON", 1));
                      EXPECT_TRUE(Fault::Tripped());
                  }));
    }
}

}  // namespace
