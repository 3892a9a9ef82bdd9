#include "service/session.h"

#include <gtest/gtest.h>

#include "service/internal/session_table.h"

namespace {

using talvek::SessionSlot;

class Session : public ::testing::Test {
  protected:
    void TearDown() override { talvek::InitSessions(); }
};

TEST_F(Session, AllNumbersAreFreeAtTheStart) {
    for (uint32_t session = 0; session < TALVEK_SESSIONS; ++session) {
        EXPECT_EQ(talvek::kFreeSession, SessionSlot(session));
    }
    EXPECT_EQ(256, TALVEK_SESSIONS);
    EXPECT_EQ(-1, TALVEK_NO_SESSION);
}

TEST_F(Session, RegSessionDoesNotTakeTheNumber) {
    EXPECT_EQ(0, TALVEK_RegSession());
    EXPECT_EQ(0, TALVEK_RegSession());
    EXPECT_EQ(talvek::kFreeSession, SessionSlot(0));
}

TEST_F(Session, RegSessionReturnsTheLowestFreeNumberOrMinusOne) {
    for (uint32_t session = 0; session < TALVEK_SESSIONS; ++session) {
        EXPECT_EQ(static_cast<int>(session), TALVEK_RegSession());
        SessionSlot(session) = 1;
    }
    EXPECT_EQ(-1, TALVEK_RegSession());
    EXPECT_EQ(0, TALVEK_UnRegSession(200));
    EXPECT_EQ(0, TALVEK_UnRegSession(100));
    EXPECT_EQ(100, TALVEK_RegSession());
}

TEST_F(Session, UnRegSessionFreesNumbersUpTo255) {
    SessionSlot(255) = 0;
    EXPECT_EQ(0, TALVEK_UnRegSession(255));
    EXPECT_EQ(talvek::kFreeSession, SessionSlot(255));
    EXPECT_EQ(0, TALVEK_UnRegSession(0)) << "a number that is free already";
    EXPECT_EQ(-1, TALVEK_UnRegSession(256));
    EXPECT_EQ(-1, TALVEK_UnRegSession(0xFFFFFFFF));
}

TEST_F(Session, InitSessionsFreesAllNumbers) {
    SessionSlot(0) = 7;
    SessionSlot(255) = 7;
    talvek::InitSessions();
    EXPECT_EQ(0, TALVEK_RegSession());
    EXPECT_EQ(talvek::kFreeSession, SessionSlot(255));
}

}  // namespace
