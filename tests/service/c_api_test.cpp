// The chief headers in C: every public entry of each library is declared in them with C linkage.

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "support/c_api.h"
#include "support/command.h"

extern "C" {
extern const tCModule kCommonInC;
extern const tCModule kDevInC;
extern const tCModule kDnsInC;
extern const tCModule kServiceInC;
}

namespace {

const tCModule *const kModules[] = {&kCommonInC, &kDevInC, &kDnsInC, &kServiceInC};

TEST(CApi, CallsGoThrough) {
    for (const tCModule *pModule : kModules) {
        EXPECT_NE(0, pModule->pCallThrough()) << pModule->pName;
    }
}

// The list of the archive's symbols is held against the names that the C file could take.
TEST(CApi, DeclaresEveryEntryOfTheLibraries) {
    if (!talvek::test::HasCommand("nm")) {
        GTEST_SKIP() << "nm is not installed";
    }
    for (const tCModule *pModule : kModules) {
        std::set<std::string> declared;
        for (size_t i = 0; i < pModule->entries; ++i) {
            EXPECT_NE(nullptr, pModule->pEntries[i].pAddress);
            declared.insert(pModule->pEntries[i].pName);
        }
        for (size_t i = 0; i < pModule->tables; ++i) {
            EXPECT_NE(nullptr, pModule->pTables[i].pAddress);
            declared.insert(pModule->pTables[i].pName);
        }
        std::set<std::string> exported;
        const std::string archive =
            std::string{TALVEK_BINARY_DIR} + "/libtalvek_" + pModule->pName + ".a";
        std::istringstream symbols{
            talvek::test::RunCommand("nm -g --defined-only --format=posix " + archive)};
        for (std::string line; std::getline(symbols, line);) {
            std::istringstream words{line};
            std::string name;
            std::string kind;
            words >> name >> kind;
            const bool isPublic = name.starts_with("COM_") || name.starts_with("_COM_") ||
                                  name.starts_with("Dev_") || name.starts_with("DNS_") ||
                                  name.starts_with("TALVEK_");
            if (isPublic && kind.find_first_of("TDRB") == 0) {
                exported.insert(name);
            }
        }
        EXPECT_FALSE(exported.empty()) << archive;
        EXPECT_EQ(exported, declared) << "in the C file of " << pModule->pName;
    }
}

}  // namespace
