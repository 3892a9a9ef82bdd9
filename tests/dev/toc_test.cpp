#include "dev/toc.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include <string>

#include "disc_fixture.h"

namespace {

using namespace talvek::test;

// The format byte of the CDB distinguishes two forms of one command.
const std::map<size_t, uint8_t> kAtip = {{2, 0x04}};
const std::map<size_t, uint8_t> kToc = {{2, 0x00}};

class ReadCdAtip : public DiscTest {
  protected:
    ReadCdAtip() {
        drive_.Load("cd_r_empty.hex");
        info_ = Disc(1, 2);
    }
    static std::string Line(const std::string &text) { return "DEV:Dev_ReadCdATIP(): " + text; }
};

TEST_F(ReadCdAtip, LogsTypeTimesAndCapacity) {
    EXPECT_EQ((Lines{"Reference Speed = 4", Line("Disc Type : CD-R"),
                     "Disc Sub Type = High   Speed", Line("Start Time of Lead-in 97:15:17"),
                     Line("Start Time of Lead-out 79:59:74"), Line("Disc Space is 719998 KB")}),
              LinesOf(Dev_ReadCdATIP));
    // ((79 * 60 + 59) * 75 + 74) * 2
    EXPECT_EQ(719998U, info_.totalKB);
    EXPECT_EQ(1U, info_.cdSubType);
}

TEST_F(ReadCdAtip, TakesTheDiscTypeFromBitZero) {
    drive_.Patch(0x43, 6, {0xFE}, kAtip);
    EXPECT_EQ(Line("Disc Type : CD-R"), LinesOf(Dev_ReadCdATIP)[1]);
    drive_.Patch(0x43, 6, {0x01}, kAtip);
    EXPECT_EQ(Line("Disc Type : CD-RW"), LinesOf(Dev_ReadCdATIP)[1]);
}

TEST_F(ReadCdAtip, PrintsTheSubTypes) {
    const char *const names[] = {"Normal Speed", "High   Speed", "Ultra  Speed", "Not Defined",
                                 "Not Defined",  "Not Defined",  "Not Defined",  "Not Defined"};
    for (unsigned subType = 0; subType < 8; ++subType) {
        drive_.Patch(0x43, 6, {static_cast<uint8_t>(0xC7 | subType << 3)}, kAtip);
        EXPECT_EQ(std::string{"Disc Sub Type = "} + names[subType], LinesOf(Dev_ReadCdATIP)[2]);
        EXPECT_EQ(subType, info_.cdSubType);
    }
}

TEST_F(ReadCdAtip, TakesTheReferenceSpeedFromThreeBits) {
    for (unsigned speed = 0; speed < 8; ++speed) {
        drive_.Patch(0x43, 4, {static_cast<uint8_t>(0xF8 | speed)}, kAtip);
        EXPECT_EQ("Reference Speed = " + std::to_string(speed), LinesOf(Dev_ReadCdATIP)[0]);
    }
}

// ((255 * 60 + 255) * 75 + 255) * 2 = 2333760
TEST_F(ReadCdAtip, AcceptsTimesOfEverySize) {
    drive_.Patch(0x43, 12, {0xFF, 0xFF, 0xFF}, kAtip);
    EXPECT_EQ(Line("Disc Space is 2333760 KB"), LinesOf(Dev_ReadCdATIP).back());
    drive_.Patch(0x43, 12, {0, 0, 0}, kAtip);
    EXPECT_EQ(Line("Start Time of Lead-out 00:00:00"), LinesOf(Dev_ReadCdATIP)[4]);
    EXPECT_EQ(0U, info_.totalKB);
}

class ReadCdToc : public DiscTest {
  protected:
    ReadCdToc() { info_ = Disc(1, 2); }
    static std::string Line(const std::string &text) { return "DEV:Dev_ReadCdToc(): " + text; }
};

// Track 5 starts at 35:10:05 = 158255 frames. The lead-out is at 40:20:30 = 181530 frames, and
// 181530 + 6750 = 188280; 188280 + 150 = 188430 is 41:52:30.
TEST_F(ReadCdToc, LogsTheLastTrackAsLeadIn) {
    drive_.Load("cd_r_open.hex");
    EXPECT_EQ((Lines{Line("Last track is 5"), Line("Last Lead-in at 35:10:05"),
                     Line("Last Lead-out at 40:20:30"), Line("Next Lead-in at 41:52:30")}),
              LinesOf(Dev_ReadCdToc));
    EXPECT_EQ(5U, info_.lastTrack);
    EXPECT_EQ(158255U - 150, info_.lastTrackStart);
    EXPECT_EQ(188280U, info_.nextLeadIn);
}

// 15:00:00 is 67500 frames; 67500 + 11250 = 78750; 78750 + 150 = 78900 is 17:32:00.
TEST_F(ReadCdToc, AddsTheLongGapAfterASingleTrack) {
    drive_.Load("cd_rw_open.hex");
    EXPECT_EQ((Lines{Line("Last track is 1"), Line("Last Lead-in at 00:02:00"),
                     Line("Last Lead-out at 15:00:00"), Line("Next Lead-in at 17:32:00")}),
              LinesOf(Dev_ReadCdToc));
    EXPECT_EQ(0U, info_.lastTrackStart);
    EXPECT_EQ(78750U, info_.nextLeadIn);
}

// Lead-out at 15:00:00 again, after track 2 at 10:00:00: 67500 + 6750 = 74250.
TEST_F(ReadCdToc, AddsTheShortGapFromTheSecondTrackOn) {
    Bytes toc(4 + 8 * 3, 0);
    toc[1] = 26;  // bytes after the length
    toc[3] = 2;
    toc[4 + 8 + 5] = 10;
    toc[4 + 16 + 5] = 15;
    drive_.Reply(0x43, toc);
    EXPECT_EQ(Line("Last track is 2"), LinesOf(Dev_ReadCdToc)[0]);
    EXPECT_EQ(10U * 4500 - 150, info_.lastTrackStart);
    EXPECT_EQ(74250U, info_.nextLeadIn);
}

TEST_F(ReadCdToc, Reads99Tracks) {
    Bytes toc(4 + 8 * 100, 0);
    toc[0] = 0x03;  // 802 bytes follow
    toc[1] = 0x22;
    toc[3] = 99;
    toc[4 + 8 * 98 + 5] = 70;  // track 99 at 70:00:00
    toc[4 + 8 * 99 + 5] = 71;  // lead-out at 71:00:10
    toc[4 + 8 * 99 + 7] = 10;
    drive_.Reply(0x43, toc);
    const Lines lines = LinesOf(Dev_ReadCdToc);
    EXPECT_EQ(Line("Last track is 99"), lines[0]);
    // 71:00:10 and 6750 + 150 frames, which are 92 seconds.
    EXPECT_EQ(Line("Next Lead-in at 72:32:10"), lines[3]);
    EXPECT_EQ(70U * 4500 - 150, info_.lastTrackStart);
    EXPECT_EQ(71U * 4500 + 10 + 6750, info_.nextLeadIn);
}

// Block addresses before 00:02:00 are negative.
TEST_F(ReadCdToc, CountsBlocksFromTwoSecondsOn) {
    drive_.Load("cd_rw_open.hex");
    drive_.Patch(0x43, 9, {0, 0, 0}, kToc);
    TextOf(Dev_ReadCdToc);
    EXPECT_EQ(-150, static_cast<int32_t>(info_.lastTrackStart));
    drive_.Patch(0x43, 9, {0, 2, 1}, kToc);
    TextOf(Dev_ReadCdToc);
    EXPECT_EQ(1U, info_.lastTrackStart);
}

// The reply has 4 + 8 * 6 bytes: five tracks and the lead-out.
TEST_F(ReadCdToc, FailsWhenTheReplyIsTooShortForLastTrackAndLeadOut) {
    drive_.Load("cd_r_open.hex");
    for (const int tracks : {0, 6, 255}) {
        drive_.Patch(0x43, 3, {static_cast<uint8_t>(tracks)}, kToc);
        EXPECT_EQ("", TextOf(Dev_ReadCdToc, DEV_QUERY_FAILED)) << tracks;
        EXPECT_TRUE(Disc(1, 2) == info_);
    }
    drive_.Patch(0x43, 3, {5}, kToc);
    for (uint8_t length = 0; length < 50; ++length) {  // of the bytes after the length
        drive_.Patch(0x43, 1, {length}, kToc);
        EXPECT_EQ("", TextOf(Dev_ReadCdToc, DEV_QUERY_FAILED)) << int{length};
        EXPECT_TRUE(Disc(1, 2) == info_);
    }
    drive_.Patch(0x43, 1, {50}, kToc);
    TextOf(Dev_ReadCdToc);
}

class ReadDvdRToc : public DiscTest {
  protected:
    ReadDvdRToc() {
        drive_.Load("dvd_plus_r_open.hex");
        info_ = Disc(4, 2);
    }
};

TEST_F(ReadDvdRToc, PrintsTheTracksAndTheLeadOut) {
    info_.discStatus = 1;
    EXPECT_EQ((Lines{" Track#1  :             14@0", " Track#2  :             14@100000",
                     " Track#AA :             14@199999",
                     "DEV:Dev_ReadDvdRToc(): Used capacity = 390 MB."}),
              LinesOf(Dev_ReadDvdRToc));
    EXPECT_EQ(200000U * 2, info_.usedKB);  // 400000 / 1024 = 390.6
}

TEST_F(ReadDvdRToc, PrintsEveryByteInItsColumn) {
    // The lead-out ends the list; the descriptor after it is ignored.
    Bytes toc = {0, 0x22, 1, 255};
    for (const Bytes &descriptor :
         {Bytes{0, 0x0C, 10, 0, 0, 0, 0, 1}, Bytes{0, 0xFF, 255, 0, 0xFF, 0xFF, 0xFF, 0xFF},
          Bytes{0, 0x05, 0xAA, 0, 0, 0, 0, 0}, Bytes{0, 0x14, 1, 0, 0, 0, 0, 0}}) {
        toc.insert(toc.end(), descriptor.begin(), descriptor.end());
    }
    drive_.Reply(0x43, toc);
    EXPECT_EQ(
        (Lines{" Track#10 :             0c@1", " Track#255:             ff@4294967295",
               " Track#AA :             05@0", "DEV:Dev_ReadDvdRToc(): Used capacity = 0 MB."}),
        LinesOf(Dev_ReadDvdRToc));
}

TEST_F(ReadDvdRToc, DerivesTheUsedCapacityFromTheStatus) {
    for (const uint32_t discClass : {3U, 4U}) {
        for (uint32_t status = 0; status < 4; ++status) {
            info_ = Disc(discClass, 2);
            info_.discStatus = status;
            info_.totalKB = 4590208;
            info_.usedKB = 7;
            const uint64_t used = status == 1 ? 400000 : status == 2 ? 4590208 : 0;
            EXPECT_EQ(
                "DEV:Dev_ReadDvdRToc(): Used capacity = " + std::to_string(used >> 10) + " MB.",
                LinesOf(Dev_ReadDvdRToc).back());
            EXPECT_EQ(used, info_.usedKB);
        }
    }
}

TEST_F(ReadDvdRToc, AcceptsTheHighestAddress) {
    drive_.Patch(0x43, 24, BigEndian32(0xFFFFFFFF), kToc);
    info_.discStatus = 1;
    TextOf(Dev_ReadDvdRToc);
    EXPECT_EQ(2ULL << 32, info_.usedKB);
}

TEST_F(ReadDvdRToc, FailsForOtherMediaWithoutARequest) {
    for (const uint32_t discClass : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U}) {
        for (const uint32_t mediaKind : {1U, 2U, 3U, 4U}) {
            if ((discClass == 3 || discClass == 4) && mediaKind == 2) {
                continue;
            }
            info_ = Disc(discClass, mediaKind);
            EXPECT_EQ("", TextOf(Dev_ReadDvdRToc, DEV_QUERY_FAILED));
        }
    }
    EXPECT_TRUE(drive_.requests.empty());
}

// Two tracks and the lead-out, whose track number is byte 22. Bytes that did not arrive are 0.
TEST_F(ReadDvdRToc, FailsWithoutLeadOut) {
    info_.discStatus = DEV_DISC_INCOMPLETE;
    info_.usedKB = 7;
    for (size_t length = 0; length <= 22; ++length) {
        drive_.cut[0x43] = length;
        TextOf(Dev_ReadDvdRToc, DEV_QUERY_FAILED);
        EXPECT_EQ(7U, info_.usedKB);
    }
    drive_.cut.clear();
    drive_.Patch(0x43, 22, {3}, kToc);
    TextOf(Dev_ReadDvdRToc, DEV_QUERY_FAILED);
    EXPECT_EQ(7U, info_.usedKB);
}

}  // namespace
