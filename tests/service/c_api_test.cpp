// service/TALVEK.h in C: every public entry of the library is declared in it and can be called.

#include "support/c_api.h"

#include <gtest/gtest.h>

TEST(CApi, CallsGoThrough) {
    EXPECT_NE(0, kModuleInC.pCallThrough());
}

TEST(CApi, DeclaresEveryEntryOfTheLibrary) {
    talvek::test::ExpectEveryEntryInC(TALVEK_BINARY_DIR "/libtalvek_service.a");
}
