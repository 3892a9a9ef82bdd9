#include "support/c_api.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "support/command.h"

namespace talvek::test {
namespace {

std::set<std::string> NamesInC() {
    std::set<std::string> names;
    for (size_t i = 0; i < kModuleInC.entries; ++i) {
        EXPECT_NE(nullptr, kModuleInC.pEntries[i].pAddress);
        names.insert(kModuleInC.pEntries[i].pName);
    }
    for (size_t i = 0; i < kModuleInC.tables; ++i) {
        EXPECT_NE(nullptr, kModuleInC.pTables[i].pAddress);
        names.insert(kModuleInC.pTables[i].pName);
    }
    return names;
}

}  // namespace

void ExpectEveryEntryInC(const char *pArchive) {
    if (!HasCommand("nm")) {
        GTEST_SKIP() << "nm is not installed";
    }
    std::set<std::string> exported;
    std::istringstream symbols{
        RunCommand(std::string{"nm -g --defined-only --format=posix "} + pArchive)};
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
    EXPECT_FALSE(exported.empty()) << pArchive;
    EXPECT_EQ(exported, NamesInC());
}

}  // namespace talvek::test
