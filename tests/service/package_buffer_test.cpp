#include "service/internal/package_buffer.h"

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "service/support/wire.h"

namespace {

using namespace talvek::test;
using talvek::PackageBuffer;

std::string FirstBytes(const PackageBuffer &package, size_t count) {
    return {reinterpret_cast<const char *>(package.bytes()), count};
}

TEST(PackageBuffer, BuildsTheSmallestPackage) {
    PackageBuffer package;
    ASSERT_TRUE(package);
    package.InitHeader();
    package.SetType(TALVEK_PKG_REGISTER);
    package.Seal(0);
    EXPECT_EQ(Hex(RegisterPkg()), Hex(FirstBytes(package, 16)));
    EXPECT_EQ(TALVEK_PKG_REGISTER, TALVEK_CheckPkgHeader(package.header(), 16));
}

TEST(PackageBuffer, StoresEachField) {
    PackageBuffer package;
    package.InitHeader();
    package.SetSession(0x01020304);
    package.SetStatus(-2);
    package.Seal(0xFEDC);
    EXPECT_EQ(Hex(ResultPkg(-2, 0x01020304, 0xFEDC)), Hex(FirstBytes(package, 20)));
}

TEST(PackageBuffer, PutsBytesUpToTheEndOfThePackage) {
    PackageBuffer package;
    EXPECT_TRUE(package.Put(TALVEK_PKG_MAX - 2, "ab", 2));
    EXPECT_EQ("ab", FirstBytes(package, TALVEK_PKG_MAX).substr(TALVEK_PKG_MAX - 2));
    EXPECT_FALSE(package.Put(TALVEK_PKG_MAX - 1, "cd", 2));
    EXPECT_FALSE(package.Put(TALVEK_PKG_MAX, "c", 1));
    EXPECT_FALSE(package.Put(SIZE_MAX, "c", 1));
    EXPECT_EQ("ab", FirstBytes(package, TALVEK_PKG_MAX).substr(TALVEK_PKG_MAX - 2));
    EXPECT_EQ(0, package.bytes()[TALVEK_PKG_MAX]);
}

// The size may come from a peer.
TEST(PackageBuffer, ReadsAStatusOnlyFromAPackageThatHoldsOne) {
    PackageBuffer package;
    package.SetStatus(7);
    for (const auto &[size, holds] : {std::pair<uint16_t, bool>{0, false},
                                      {16, false},
                                      {19, false},
                                      {20, true},
                                      {1152, true},
                                      {65535, true}}) {
        package.SetSize(size);
        int32_t status = -1;
        EXPECT_EQ(holds, package.GetStatus(status)) << size;
        EXPECT_EQ(holds ? 7 : 0, status);
    }
}

TEST(PackageBuffer, TerminatesThePayloadInsideTheBuffer) {
    PackageBuffer package;
    for (const int sz : {0, 15, 16, 17, 1151, 1152, 1153, 65535}) {
        const auto size = static_cast<uint16_t>(sz);
        memset(package.bytes(), 'x', TALVEK_PKG_MAX + 1);
        package.SetSize(size);
        package.TerminatePayload();
        EXPECT_EQ(std::clamp<size_t>(size, 16, 1152) - 16, strlen(package.payload())) << size;
    }
}

}  // namespace
