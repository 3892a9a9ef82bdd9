#ifndef TALVEK_TESTS_DEV_DISC_FIXTURE_H
#define TALVEK_TESTS_DEV_DISC_FIXTURE_H

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "dev/device.h"
#include "dev/scsi.h"
#include "disc_table.h"
#include "support/capture.h"
#include "support/simulated_drive.h"

inline bool operator==(const tDiscInfo &a, const tDiscInfo &b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

namespace talvek::test {

using Query = int (*)(const char *, int, tDiscInfo *);

constexpr const char *kNode = "/dev/sr0";

// A drive at /dev/sr0 and /dev/sg1, and the descriptor of a disc.
class DiscTest : public ::testing::Test {
  protected:
    DiscTest() { drive_.Load("drive.hex"); }
    ~DiscTest() override { close(fd_); }

    // Runs a query, expects `result` and returns what was printed.
    std::string TextOf(Query query, int result = DEV_QUERY_OK) {
        return Capture([&] {
            EXPECT_EQ(result, query(kNode, fd_, &info_));
            EXPECT_EQ(0U, __fpending(stdout)) << "what is printed is flushed";
        });
    }
    Lines LinesOf(Query query, int result = DEV_QUERY_OK) {
        return LogLines(TextOf(query, result));
    }

    SimulatedDrive drive_{{kNode, "/dev/sg1"}};
    int fd_ = drive_.Open();
    tDiscInfo info_ = {};
};

// What all data-in requests have in common.
inline void ExpectDataIn(const SgRequest &request, const Bytes &cdb, unsigned length) {
    EXPECT_EQ(HexText(cdb), HexText(request.cdb));
    EXPECT_EQ(length, request.length);
    EXPECT_EQ('S', request.interfaceId);
    EXPECT_EQ(SG_DXFER_FROM_DEV, request.direction);
    EXPECT_EQ(20000U, request.timeout);
    EXPECT_EQ(64U, request.senseSize);
    EXPECT_TRUE(request.cleared) << "sense and reply are zeroed before each issue";
}

inline Bytes BigEndian32(uint32_t value) {
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

}  // namespace talvek::test

#endif
