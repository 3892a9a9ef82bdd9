#include "dev/mmc_commands.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

#include "disc_fixture.h"
#include "support/command.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

Bytes ProfileReply(unsigned profile) {
    return {0, 0, 0, 4, 0, 0, static_cast<uint8_t>(profile >> 8), static_cast<uint8_t>(profile)};
}

struct ProfileRow {
    unsigned profile;
    const char *message;
    uint32_t discClass;
    uint32_t mediaKind;
    uint32_t recordMode;
    int result;
};

const ProfileRow kProfiles[] = {
    {0x0008, "It's CD-ROM and CANNOT be used for export!", 1, 1, 0, 0},
    {0x0009, "It's CD-R and supported!", 1, 2, 0, 1},
    {0x000A, "It's CD-RW and supported!", 1, 3, 0, 1},
    {0x0010, "It's DVD-ROM and supported!", 2, 1, 0, 1},
    {0x0011, "It's DVD-R Sequential Recording and supported!", 3, 2, 0, 1},
    {0x0012, "It's DVD-RAM but NOT supported!", 5, 4, 0, 0},
    {0x0013, "It's DVD-RW Restricted Overwrite and supported!", 3, 3, 2, 1},
    {0x0014, "It's DVD-RW Sequential Recording and supported!", 3, 3, 1, 1},
    {0x0015, "It's DVD-R Dual Layer Sequential Recording and supported!", 3, 2, 5, 1},
    {0x0016, "It's DVD-R Dual Layer Jump Recording but NOT supported!", 3, 2, 6, 0},
    {0x001A, "It's DVD+RW and supported!", 4, 3, 0, 1},
    {0x001B, "It's DVD+R and supported!", 4, 2, 0, 1},
    {0x0020, "It's DDCD-ROM and CANNOT be used for export!", 6, 1, 0, 0},
    {0x0021, "It's DDCD-R but NOT supported!", 6, 2, 0, 0},
    {0x0022, "It's DDCD-RW but NOT supported!", 6, 3, 0, 0},
    {0x002A, "It's DVD+RW Dual Layer but NOT supported!", 4, 3, 5, 0},
    {0x002B, "It's DVD+R Dual Layer and supported!", 4, 2, 5, 1},
    {0x0040, "It's BD-ROM and supported!", 7, 1, 0, 1},
};

class GetConfiguration : public DiscTest {};

TEST_F(GetConfiguration, RequestsEightBytesAndDumpsThem) {
    drive_.Load("dvd_plus_rw.hex");
    EXPECT_EQ((Lines{"DEV:Dev_ExecMMC(): ((/dev/sr0) GET CONFIGURATION) Success", "",
                     "0000h  00 00 00 10 00 00 00 1A                         |........|", "",
                     "DEV:Dev_GetConfiguration(): It's DVD+RW and supported!"}),
              LinesOf(Dev_GetConfiguration));
    ASSERT_EQ(1U, drive_.requests.size());
    ExpectDataIn(drive_.requests[0], {0x46, 0x01, 0, 0, 0, 0, 0, 0, 0x08, 0}, 8);
}

TEST_F(GetConfiguration, LogsEveryProfile) {
    for (const ProfileRow &row : kProfiles) {
        drive_.Reply(0x46, ProfileReply(row.profile));
        info_ = Disc(9, 9, 9);
        EXPECT_EQ(std::string{"DEV:Dev_GetConfiguration(): "} + row.message,
                  LinesOf(Dev_GetConfiguration, row.result).back());
        EXPECT_EQ(row.discClass, info_.discClass) << row.message;
        EXPECT_EQ(row.mediaKind, info_.mediaKind) << row.message;
        EXPECT_EQ(row.recordMode, info_.recordMode) << row.message;
    }
}

TEST_F(GetConfiguration, RejectsEveryOtherProfile) {
    std::vector<unsigned> others = {0xFF, 0x0108, 0x0900, 0x1000, 0xFFFF};
    for (unsigned profile = 0; profile <= 0x60; ++profile) {
        others.push_back(profile);
    }
    for (const unsigned profile : others) {
        if (std::any_of(std::begin(kProfiles), std::end(kProfiles),
                        [profile](const ProfileRow &row) { return row.profile == profile; })) {
            continue;
        }
        drive_.Reply(0x46, ProfileReply(profile));
        info_ = Disc(9, 9, 9);
        char expected[128];
        snprintf(expected, sizeof expected,
                 "DEV:Dev_GetConfiguration(): Disc type(0x%04X) unreconfized and unsupported!",
                 profile);
        EXPECT_EQ(expected, LinesOf(Dev_GetConfiguration, DEV_QUERY_FAILED).back());
        EXPECT_TRUE(Disc(1, 1, 0) == info_) << "the preset";
    }
}

TEST_F(GetConfiguration, PresetsTheDescriptorBeforeAFailure) {
    drive_.Always(0x46, SgAnswer::Check(0x06, 0x28, 0x00));
    info_ = Disc(9, 9, 9);
    info_.sessions = 7;
    const Lines lines = LinesOf(Dev_GetConfiguration, DEV_QUERY_FAILED);
    EXPECT_EQ("DEV:Dev_ExecMMC(): (/dev/sr0) GET CONFIGURATION (46h) sense data :", lines.front());
    EXPECT_EQ("DEV:Dev_ExecMMC(): ((/dev/sr0) GET CONFIGURATION) Fail", lines.back());
    tDiscInfo expected = Disc(1, 1, 0);
    expected.sessions = 7;
    EXPECT_TRUE(expected == info_);
    EXPECT_EQ(Lines{"DEV:Dev_GetConfiguration(): Get Null ptr"}, CaptureLog([&] {
                  EXPECT_EQ(DEV_QUERY_FAILED, Dev_GetConfiguration(kNode, fd_, nullptr));
              }));
}

// The profile is in bytes 6 and 7.
TEST_F(GetConfiguration, RejectsAReplyThatEndsBeforeTheProfile) {
    drive_.Load("dvd_plus_rw.hex");
    for (size_t length = 0; length < 8; ++length) {
        drive_.cut[0x46] = length;
        EXPECT_EQ("DEV:Dev_GetConfiguration(): Disc type(0x0000) unreconfized and unsupported!",
                  LinesOf(Dev_GetConfiguration, DEV_QUERY_FAILED).back());
    }
    drive_.cut[0x46] = 8;
    LinesOf(Dev_GetConfiguration, DEV_QUERY_OK);
}

// Debian's tool gets the replies of the fixtures instead of a drive's.
TEST_F(GetConfiguration, AgreesWithSgGetConfig) {
    if (std::string{TALVEK_SG_PRELOAD}.empty()) {
        GTEST_SKIP() << "the library with the drive is built for another processor than the tool";
    }
    const struct {
        const char *fixture;
        const char *name;
        uint32_t discClass;
        uint32_t mediaKind;
        int result;
    } cases[] = {
        {"cd_rom.hex", "CD-ROM", 1, 1, 0},
        {"cd_r_open.hex", "CD-R", 1, 2, 1},
        {"cd_rw_open.hex", "CD-RW", 1, 3, 1},
        {"dvd_rom.hex", "DVD-ROM", 2, 1, 1},
        {"dvd_ram.hex", "DVD-RAM", 5, 4, 0},
        {"dvd_minus_r_open.hex", "DVD-R sequential recording", 3, 2, 1},
        // Spelled as the tool has it.
        {"dvd_minus_r_dual_layer.hex", "DVD-R dual layer sequental recording", 3, 2, 1},
        {"dvd_minus_r_jump.hex", "DVD-R dual layer jump recording", 3, 2, 0},
        {"dvd_minus_rw_overwrite.hex", "DVD-RW restricted overwrite", 3, 3, 1},
        {"dvd_minus_rw_sequential.hex", "DVD-RW sequential recording", 3, 3, 1},
        {"dvd_plus_rw.hex", "DVD+RW", 4, 3, 1},
        {"dvd_plus_rw_dual_layer.hex", "DVD+RW dual layer", 4, 3, 0},
        {"dvd_plus_r_open.hex", "DVD+R", 4, 2, 1},
        {"dvd_plus_r_dual_layer.hex", "DVD+R dual layer", 4, 2, 1},
        {"ddcd_rom.hex", "DDCD-ROM", 6, 1, 0},
        {"ddcd_r.hex", "DDCD-R", 6, 2, 0},
        {"ddcd_rw.hex", "DDCD-RW", 6, 3, 0},
        {"bd_rom.hex", "BD-ROM", 7, 1, 1},
        // The preset: not supported.
        {"bd_r.hex", "BD-R SRM", 1, 1, 0},
        {"bd_re.hex", "BD-RE", 1, 1, 0},
        {"hd_dvd_rom.hex", "HD DVD-ROM", 1, 1, 0},
    };
    const TempDir dir;
    for (const auto &item : cases) {
        drive_.Load(item.fixture);
        const Bytes &reply = drive_.Data(0x46);
        WriteFile(dir / "reply", std::string{reply.begin(), reply.end()});
        const std::string output =
            RunCommand("SG_PRELOAD_REPLY=" + (dir / "reply") +
                       " LD_PRELOAD=" TALVEK_SG_PRELOAD " sg_get_config /dev/null");
        EXPECT_NE(std::string::npos,
                  output.find("Current profile: " + std::string{item.name} + "\n"))
            << output;
        TextOf(Dev_GetConfiguration, item.result);
        EXPECT_EQ(item.discClass, info_.discClass) << item.name;
        EXPECT_EQ(item.mediaKind, info_.mediaKind) << item.name;
    }
}

class ReadDiscInfo : public DiscTest {
  protected:
    ReadDiscInfo() { drive_.Load("dvd_plus_rw.hex"); }
    static std::string Line(const std::string &text) { return "DEV:Dev_ReadDiscInfo(): " + text; }
};

TEST_F(ReadDiscInfo, LogsTheKindOfDisc) {
    const struct {
        uint32_t discClass;
        uint32_t recordMode;
        uint8_t erasable;
        const char *text;
    } cases[] = {
        {3, 0, 0x00, "This disc is DVD-R  "},  {3, 1, 0x10, "This disc is DVD-RW  "},
        {3, 2, 0x10, "This disc is DVD-RW  "}, {3, 4, 0x10, "This disc is DVD-RW  "},
        {3, 5, 0x00, "This disc is DVD-R DL"}, {3, 6, 0x00, "This disc is DVD-R DL"},
        {4, 0, 0x00, "This disc is DVD+R  "},  {4, 0, 0x10, "This disc is DVD+RW  "},
        {4, 5, 0x00, "This disc is DVD+R DL"}, {4, 5, 0xFF, "This disc is DVD+RW DL"},
        {7, 0, 0x00, "This disc is BD-R"},     {7, 0, 0x10, "This disc is BD-RE"},
        {7, 5, 0xEF, "This disc is BD-R"},
    };
    for (const auto &item : cases) {
        drive_.Patch(0x51, 2, {item.erasable});
        info_ = Disc(item.discClass, 2, item.recordMode);
        EXPECT_EQ(Line(item.text), LinesOf(Dev_ReadDiscInfo)[0]);
    }
}

TEST_F(ReadDiscInfo, LogsAndStoresTheStatusOfFourClasses) {
    const char *const texts[] = {"It is an empty disc", "It is an incomplete disc",
                                 "It is a finalized disc",
                                 "The disc is only random access writable"};
    for (const uint32_t discClass : {1U, 3U, 4U, 7U}) {
        for (unsigned status = 0; status < 4; ++status) {
            drive_.Patch(0x51, 2, {static_cast<uint8_t>(0xFC | status)});
            info_ = Disc(discClass, 2);
            EXPECT_EQ(Line(texts[status]), LinesOf(Dev_ReadDiscInfo).back());
            EXPECT_EQ(status, info_.discStatus);
        }
    }
    for (const uint32_t discClass : {0U, 2U, 5U, 6U, 8U}) {
        info_ = Disc(discClass, 1);
        EXPECT_EQ("", TextOf(Dev_ReadDiscInfo));
        EXPECT_TRUE(Disc(discClass, 1) == info_);
    }
}

TEST_F(ReadDiscInfo, ReadsTracksAndSessionsFromTwoBytes) {
    drive_.Patch(0x51, 4, {0x03});   // sessions, low byte
    drive_.Patch(0x51, 9, {0x02});   // and high byte
    drive_.Patch(0x51, 6, {0x05});   // last track, low byte
    drive_.Patch(0x51, 11, {0x01});  // and high byte
    for (const uint32_t discClass : {3U, 4U, 7U}) {
        info_ = Disc(discClass, 2);
        const Lines lines = LinesOf(Dev_ReadDiscInfo);
        ASSERT_EQ(3U, lines.size());
        EXPECT_EQ(Line("Last Track in Last Session is 261"), lines[1]);
        EXPECT_EQ(261U, info_.lastTrack);
        EXPECT_EQ(0U, info_.sessions);
    }
    info_ = Disc(1, 2);
    const Lines lines = LinesOf(Dev_ReadDiscInfo);
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ(Line("Total session number = 515."), lines[0]);
    EXPECT_EQ(515U, info_.sessions);
    EXPECT_EQ(0U, info_.lastTrack);
}

class ReadTrackInfo : public DiscTest {
  protected:
    ReadTrackInfo() { drive_.Load("dvd_plus_r_open.hex"); }
};

TEST_F(ReadTrackInfo, PrintsTheTrack) {
    info_ = Disc(4, 2);
    info_.lastTrack = 2;
    EXPECT_EQ(
        "Read Track Information [#2].\n"
        "Track Start Address   = 200000 * 2KB\n"
        "Next Writable Address = 200000 * 2KB\n"
        "FreeBlocks            = 2095104 * 2KB\n"
        "TrackSize             = 2095104 * 2KB\n",
        TextOf(Dev_ReadTrackInfo));
    EXPECT_EQ(2095104U, info_.freeBlocks);
    EXPECT_EQ(2095104U, info_.trackSize);
    ASSERT_EQ(2U, drive_.requests.size());
    ExpectDataIn(drive_.requests[0], {0x52, 0x01, 0, 0, 0, 0x02, 0, 0, 0x24, 0}, 36);
}

TEST_F(ReadTrackInfo, PrintsNoNextWritableAddressUnlessItIsValid) {
    drive_.Patch(0x52, 7, {0xFE});
    drive_.Patch(0x52, 8, BigEndian32(0xFFFFFFFF));
    drive_.Patch(0x52, 16, BigEndian32(0xFFFFFFFE));
    drive_.Patch(0x52, 24, BigEndian32(0x80000000));
    EXPECT_EQ(
        "Read Track Information [#0].\n"
        "Track Start Address   = 4294967295 * 2KB\n"
        "FreeBlocks            = 4294967294 * 2KB\n"
        "TrackSize             = 2147483648 * 2KB\n",
        TextOf(Dev_ReadTrackInfo));
}

TEST_F(ReadTrackInfo, DerivesTheUsedCapacityFromTheStatus) {
    drive_.Patch(0x52, 16, BigEndian32(1000));
    for (const uint32_t discClass : {1U, 2U, 3U, 4U, 5U, 6U, 7U}) {
        const bool counts = discClass == 1 || discClass == 3 || discClass == 4 || discClass == 7;
        for (uint32_t status = 0; status < 4; ++status) {
            info_ = Disc(discClass, 2);
            info_.discStatus = status;
            info_.totalKB = 4590208;
            info_.usedKB = 77;
            TextOf(Dev_ReadTrackInfo);
            const uint64_t used = status == 1 ? 4590208 - 2 * 1000 : status == 2 ? 4590208 : 0;
            EXPECT_EQ(counts ? used : 77, info_.usedKB) << discClass << " " << status;
        }
    }
}

// A DVD-R may have a few more blocks than its nominal capacity.
TEST_F(ReadTrackInfo, ReportsNothingUsedWhenMoreIsFreeThanNominal) {
    info_ = Disc(3, 2);
    info_.discStatus = 1;
    info_.totalKB = 4595776;
    const struct {
        uint32_t freeBlocks;
        uint64_t usedKB;
    } cases[] = {{2297887, 2}, {2297888, 0},    {2297889, 0},
                 {2298496, 0}, {0xFFFFFFFF, 0}, {0, 4595776}};
    for (const auto &item : cases) {
        drive_.Patch(0x52, 16, BigEndian32(item.freeBlocks));
        TextOf(Dev_ReadTrackInfo);
        EXPECT_EQ(item.usedKB, info_.usedKB) << item.freeBlocks;
    }
}

class ReadDvdStruct : public DiscTest {
  protected:
    ReadDvdStruct() {
        drive_.Reply(0xAD, Bytes(2052, 0));
        drive_.Patch(0xAD, 0, {0x08, 0x02});  // data length: 2050
    }
};

TEST_F(ReadDvdStruct, LogsTheSectorNumbers) {
    drive_.Load("dvd_plus_r_dual_layer.hex");
    info_ = Disc(4, 2, 5);
    const std::string entry = "DEV:Dev_ReadDvdStruct(): ";
    const Lines expected = {entry + "Start Physical Sector Number of Data Area = 030000h ",
                            entry + "End Physical Sector Number of Data Area = FCFFFFh ",
                            entry + "End Physical Sector Number Layer Zero = 22D7FFh "};
    EXPECT_EQ(expected, LinesOf(Dev_ReadDvdStruct));
    EXPECT_EQ(8347648U, info_.totalKB);
    EXPECT_EQ(2052U, drive_.requests[1].length);
}

// Layer bits: 0 is one layer, 1 is two; 2 and 3 are reserved and count as one.
TEST_F(ReadDvdStruct, StoresNominalCapacities) {
    const struct {
        uint32_t discClass;
        uint8_t size;    // byte 5
        uint8_t layers;  // byte 6
        uint64_t totalKB;
    } cases[] = {
        {3, 0x0F, 0x02, 4595776}, {3, 0x1F, 0x02, 1425782}, {3, 0x0F, 0x22, 8343424},
        {3, 0x1F, 0x32, 8343424}, {4, 0x0F, 0x02, 4590208}, {4, 0x1F, 0x02, 1429088},
        {4, 0x0F, 0x32, 8347648}, {4, 0x1F, 0x22, 8347648}, {4, 0x2F, 0x9F, 4590208},
        {3, 0x0F, 0x42, 4595776}, {4, 0x0F, 0x62, 4590208}, {3, 0x1F, 0x62, 1425782},
        {1, 0x0F, 0x02, 5},       {2, 0x0F, 0x22, 5},       {5, 0x1F, 0x02, 5},
        {6, 0x0F, 0x02, 5},       {7, 0x0F, 0x22, 5},
    };
    for (const auto &item : cases) {
        drive_.Patch(0xAD, 5, {item.size, item.layers});
        info_ = Disc(item.discClass, 2);
        info_.totalKB = 5;
        TextOf(Dev_ReadDvdStruct);
        EXPECT_EQ(item.totalKB, info_.totalKB)
            << item.discClass << " " << int{item.size} << " " << int{item.layers};
    }
}

// A capacity list: header, current descriptor and formattable descriptors.
Bytes CapacityList(uint8_t listLength, const std::vector<Bytes> &descriptors) {
    Bytes reply = {0, 0, 0, listLength};
    for (const Bytes &descriptor : descriptors) {
        reply.insert(reply.end(), descriptor.begin(), descriptor.end());
    }
    return reply;
}

Bytes Descriptor(uint32_t blocks, uint8_t type, uint32_t parameter) {
    Bytes bytes = BigEndian32(blocks);
    const Bytes last = BigEndian32(parameter);
    bytes.push_back(type);
    bytes.insert(bytes.end(), last.begin() + 1, last.end());
    return bytes;
}

constexpr uint8_t Format(uint8_t type) {
    return static_cast<uint8_t>(type << 2);
}

class ReadFormatCapacity : public DiscTest {
  protected:
    // totalKB of a disc of this class and kind; 5 when it is unchanged.
    uint64_t TotalKB(uint32_t discClass, uint32_t mediaKind) {
        info_ = Disc(discClass, mediaKind);
        info_.totalKB = 5;
        TextOf(Dev_ReadFormatCapacity);
        return info_.totalKB;
    }
};

TEST_F(ReadFormatCapacity, PrintsTheListInRowsOfSixteen) {
    drive_.Load("dvd_plus_rw.hex");
    info_ = Disc(4, 3);
    EXPECT_EQ((Lines{"DEV:Dev_ReadFormatCapacity(): (/dev/sr0) : reply_buf_len = 24",
                     "00 23 05 40 02 00 08 00  00 23 05 40 00 00 08 00  |.#.@.....#.@....|",
                     "00 23 05 40 98 00 00 00  ", "Formatted disc"}),
              LinesOf(Dev_ReadFormatCapacity));
    drive_.Reply(0x23,
                 CapacityList(17, {{0x1F, ' ', '~', 0x7F, 0x80, 0xFF, 'a', 'b'}, Bytes(9, '.')}));
    EXPECT_EQ("1f 20 7e 7f 80 ff 61 62  2e 2e 2e 2e 2e 2e 2e 2e  |. ~...ab........|",
              LinesOf(Dev_ReadFormatCapacity)[1]);
    EXPECT_EQ("2e ", LinesOf(Dev_ReadFormatCapacity)[2]);
}

TEST_F(ReadFormatCapacity, PrintsTheTypeOfTheCurrentDescriptor) {
    const char *const texts[] = {"Reserved descriptor type", "Unformatted Media", "Formatted disc",
                                 "No Media Present/ Unknown capacity media"};
    for (unsigned type = 0; type < 4; ++type) {
        drive_.Reply(0x23, CapacityList(16, {Descriptor(1, static_cast<uint8_t>(0xFC | type), 0),
                                             Descriptor(2, 0, 3)}));
        EXPECT_EQ(texts[type], LinesOf(Dev_ReadFormatCapacity).back());
    }
}

TEST_F(ReadFormatCapacity, DoublesTheCurrentBlocksOfABluRayDisc) {
    drive_.Load("bd_re.hex");
    EXPECT_EQ(2ULL * 12066816, TotalKB(7, 3));
    drive_.Patch(0x23, 4, BigEndian32(0xFFFFFFFF));
    EXPECT_EQ(2ULL * 0xFFFFFFFF, TotalKB(7, 2)) << "more than 32 bits";
}

TEST_F(ReadFormatCapacity, MultipliesBlocksAndParameterOfTheFullFormat) {
    drive_.Reply(0x23, CapacityList(16, {Descriptor(9, 2, 2048), Descriptor(2000, 0x00, 2048)}));
    EXPECT_EQ(4000U, TotalKB(4, 3));
    EXPECT_EQ(4000U, TotalKB(1, 3));
    EXPECT_EQ(4000U, TotalKB(3, 2)) << "of any kind";
    // The two low bits of the byte are not part of the format type.
    drive_.Patch(0x23, 16, {0x03});
    EXPECT_EQ(4000U, TotalKB(4, 3));
}

// 2297888 * 2048 = 4706074624 = 2^32 + 411107328, and 411107328 / 1024 = 401472.
TEST_F(ReadFormatCapacity, WrapsTheFullFormatProduct) {
    drive_.Reply(0x23,
                 CapacityList(16, {Descriptor(2297888, 2, 2048), Descriptor(2297888, 0, 2048)}));
    EXPECT_EQ(401472U, TotalKB(3, 3));
    // 2097151 * 2048 stays below 2^32, 2097152 * 2048 is 2^32.
    drive_.Patch(0x23, 12, BigEndian32(2097151));
    EXPECT_EQ(4194302U, TotalKB(3, 3));
    drive_.Patch(0x23, 12, BigEndian32(2097152));
    EXPECT_EQ(0U, TotalKB(3, 3));
}

TEST_F(ReadFormatCapacity, UsesTheFormatOfTheFamilyForARewritableDisc) {
    drive_.Load("dvd_minus_rw_overwrite.hex");
    EXPECT_EQ(2U * 2297888, TotalKB(3, 3)) << "not the wrapped product";
    for (const uint8_t type : {uint8_t{0x26}, uint8_t{0x10}}) {
        for (const uint32_t discClass : {1U, 2U, 3U, 4U, 5U, 6U, 7U}) {
            for (const uint32_t mediaKind : {1U, 2U, 3U, 4U}) {
                drive_.Reply(0x23, CapacityList(16, {Descriptor(9, 2, 2048),
                                                     Descriptor(0xFFFFFFFF, Format(type), 0)}));
                const bool taken = mediaKind == 3 && discClass == (type == 0x26 ? 4 : 3);
                EXPECT_EQ(taken ? 2ULL * 0xFFFFFFFF : 5, TotalKB(discClass, mediaKind))
                    << discClass << " " << mediaKind;
            }
        }
    }
}

TEST_F(ReadFormatCapacity, IgnoresOtherFormatTypes) {
    for (uint8_t type = 1; type < 0x40; ++type) {
        drive_.Reply(
            0x23, CapacityList(16, {Descriptor(9, 2, 2048), Descriptor(100, Format(type), 2048)}));
        EXPECT_EQ(type == 0x10 ? 200U : 5U, TotalKB(3, 3)) << int{type};
        EXPECT_EQ(type == 0x26 ? 200U : 5U, TotalKB(4, 3)) << int{type};
        EXPECT_EQ(5U, TotalKB(7, 3)) << int{type};
    }
}

// Up to 8 bytes there is no formattable descriptor. From 9 to 15 there is no current descriptor,
// and the first formattable one is incomplete.
TEST_F(ReadFormatCapacity, ReadsListsOfEveryLength) {
    for (unsigned length = 0; length <= 33; ++length) {
        Bytes reply = CapacityList(
            static_cast<uint8_t>(length),
            {Descriptor(70, 2, 2048), Descriptor(100, 0x00, 2048), Descriptor(200, 0x00, 2048),
             Descriptor(300, 0x00, 2048), Descriptor(400, 0x00, 2048)});
        reply.resize(4 + length);
        drive_.Reply(0x23, reply);
        // (L - 9) / 8 + 1 descriptors from byte 12 on; an incomplete one has no block length.
        const unsigned count = length < 9 ? 0 : (length - 9) / 8 + 1;
        const unsigned whole = length < 16 ? 0 : (length - 8) / 8;
        const uint64_t expected = count == 0 ? 5 : count > whole ? 0 : 2 * 100 * whole;
        EXPECT_EQ(expected, TotalKB(4, 3)) << length;
        EXPECT_EQ(length < 9 ? 5U : length < 16 ? 0U : 140U, TotalKB(7, 3)) << length;
        EXPECT_EQ(length > 15,
                  TextOf(Dev_ReadFormatCapacity).find("Formatted disc") != std::string::npos);
    }
}

// A descriptor that was announced but did not arrive is a full format of 0 blocks.
TEST_F(ReadFormatCapacity, ReadsDescriptorsThatDidNotArriveAsZero) {
    drive_.Load("dvd_minus_rw_overwrite.hex");
    EXPECT_EQ(2U * 2297888, TotalKB(3, 3));
    drive_.cut[0x23] = 28;  // the full formats 00h and 10h
    EXPECT_EQ(0U, TotalKB(3, 3));
}

// The second request has the length of the first reply, here two formattable descriptors.
TEST_F(ReadFormatCapacity, CountsTheDescriptorsOfTheSecondReply) {
    const Bytes longList = CapacityList(
        24, {Descriptor(9, 2, 2048), Descriptor(100, 0x00, 2048), Descriptor(200, 0x00, 2048)});
    Bytes shortList = longList;
    shortList[3] = 16;
    drive_.Reply(0x23, shortList);
    drive_.Next(0x23, SgAnswer::Data(longList));
    EXPECT_EQ(200U, TotalKB(4, 3));
    EXPECT_EQ(28U, drive_.requests.back().length);
    drive_.Patch(0x23, 3, {8});
    drive_.Next(0x23, SgAnswer::Data(longList));
    EXPECT_EQ(5U, TotalKB(4, 3)) << "none";
}

class ReadBufferCapacity : public DiscTest {};

TEST_F(ReadBufferCapacity, RoundsUpToWholeMebibytes) {
    const struct {
        uint32_t bytes;
        const char *text;
    } cases[] = {
        {0, "buffer_size = ???"},         {0xFFFFF, "buffer_size = ???"},
        {0x100000, "buffer_size = ???"},  {0x100001, "buffer_size = 2 MB"},
        {0x1FFFFF, "buffer_size = 2 MB"}, {0x200000, "buffer_size = 2 MB"},
        {0x200001, "buffer_size = 3 MB"}, {0xFFFFFFFF, "buffer_size = 4096 MB"},
    };
    for (const auto &item : cases) {
        drive_.Patch(0x5C, 4, BigEndian32(item.bytes));
        EXPECT_EQ(Lines{std::string{"DEV:Dev_ReadBufferCapacity(): "} + item.text},
                  CaptureLog([&] { EXPECT_EQ(DEV_QUERY_OK, Dev_ReadBufferCapacity(kNode, fd_)); }));
    }
}

}  // namespace
