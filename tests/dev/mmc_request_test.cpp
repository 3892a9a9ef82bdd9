// What all commands that query a disc have in common: the form of the requests, the length of the
// second one, failures, and replies that end early.

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>

#include <algorithm>
#include <string>

#include "dev/DEV.h"
#include "disc_fixture.h"
#include "support/command.h"

namespace {

using namespace talvek::test;

int BufferCapacity(const char *pPath, int fd, tDiscInfo *) {
    return Dev_ReadBufferCapacity(pPath, fd);
}

struct Command {
    const char *label;
    const char *peerName;  // of the opcode in sg_decode_sense, unless disks use it otherwise
    Query query;
    tDiscInfo info;  // before the call
    Bytes cdb;       // of the first request
    unsigned length;
    bool sentTwice;
};

tDiscInfo WithLastTrack(uint32_t track) {
    tDiscInfo info = Disc(DEV_CLASS_DVD_PLUS, DEV_MEDIA_WRITE_ONCE);
    info.lastTrack = track;
    info.discStatus = DEV_DISC_INCOMPLETE;
    return info;
}

const Command kCommands[] = {
    {"READ BUFFER CAPACITY",
     "Read buffer capacity",
     BufferCapacity,
     {},
     {0x5C, 0, 0, 0, 0, 0, 0, 0, 0x0C, 0},
     12,
     false},
    {"READ DISC INFORMATION",
     nullptr,
     Dev_ReadDiscInfo,
     Disc(DEV_CLASS_DVD_PLUS, DEV_MEDIA_WRITE_ONCE),
     {0x51, 0, 0, 0, 0, 0, 0, 0, 0x22, 0},
     34,
     true},
    {"(0100b ; ATIP -MSF-)",
     "Read TOC/PMA/ATIP",
     Dev_ReadCdATIP,
     Disc(DEV_CLASS_CD, DEV_MEDIA_WRITE_ONCE),
     {0x43, 0x02, 0x04, 0, 0, 0, 0, 0, 0x04, 0},
     4,
     true},
    {"(0000b ; Formatted TOC -MSF-)",
     "Read TOC/PMA/ATIP",
     Dev_ReadCdToc,
     Disc(DEV_CLASS_CD, DEV_MEDIA_WRITE_ONCE),
     {0x43, 0x02, 0, 0, 0, 0, 0x01, 0, 0x04, 0},
     4,
     true},
    {"READ TOC/PMA/ATIP",
     "Read TOC/PMA/ATIP",
     Dev_ReadDvdRToc,
     Disc(DEV_CLASS_DVD_PLUS, DEV_MEDIA_WRITE_ONCE),
     {0x43, 0, 0, 0, 0, 0, 0x01, 0, 0x04, 0},
     4,
     true},
    {"READ TRACK INFORMATION",
     nullptr,
     Dev_ReadTrackInfo,
     WithLastTrack(0x01020304),
     {0x52, 0x01, 0x01, 0x02, 0x03, 0x04, 0, 0, 0x24, 0},
     36,
     true},
    {"READ DVD STRUCTURE",
     "Read DVD/BD structure",
     Dev_ReadDvdStruct,
     Disc(DEV_CLASS_DVD_PLUS, DEV_MEDIA_WRITE_ONCE),
     {0xAD, 0, 0, 0, 0, 0, 0, 0, 0, 0x04, 0, 0},
     4,
     true},
    {"READ DVD STRUCTURE",
     "Read DVD/BD structure",
     Dev_ReadDvdStruct,
     Disc(DEV_CLASS_DVD_MINUS, DEV_MEDIA_WRITE_ONCE),
     {0xAD, 0, 0, 0, 0, 0, 0, 0x10, 0, 0x04, 0, 0},
     4,
     true},
    {"READ DVD STRUCTURE",
     "Read DVD/BD structure",
     Dev_ReadDvdStruct,
     Disc(DEV_CLASS_DVD_MINUS, DEV_MEDIA_REWRITABLE),
     {0xAD, 0, 0, 0, 0, 0, 0, 0x10, 0, 0x04, 0, 0},
     4,
     true},
    {"READ DVD STRUCTURE",
     "Read DVD/BD structure",
     Dev_ReadDvdStruct,
     Disc(DEV_CLASS_DVD_MINUS, DEV_MEDIA_READ_ONLY),
     {0xAD, 0, 0, 0, 0, 0, 0, 0, 0, 0x04, 0, 0},
     4,
     true},
    {"READ DVD STRUCTURE",
     "Read DVD/BD structure",
     Dev_ReadDvdStruct,
     Disc(DEV_CLASS_BD, DEV_MEDIA_REWRITABLE),
     {0xAD, 0x01, 0, 0, 0, 0, 0, 0x10, 0, 0x04, 0, 0},
     4,
     true},
    {"READ FORMAT CAPACITY",
     "Read Format capacities",
     Dev_ReadFormatCapacity,
     Disc(DEV_CLASS_DVD_PLUS, DEV_MEDIA_REWRITABLE),
     {0x23, 0, 0, 0, 0, 0, 0, 0, 0xFC, 0},
     252,
     true},
};

// A reply with every field set: 40 bytes that every command accepts.
Bytes FullReply(const Command &command) {
    Bytes data(40, 0);
    for (size_t i = 4; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>(0x11 * (i % 8 + 1));
    }
    data[1] = 38;
    if (command.cdb[0] == 0x43) {  // one track and the lead-out
        data[3] = 1;
        data[6] = 0x01;
        data[14] = 0xAA;
    } else if (command.cdb[0] == 0x23) {
        data[1] = 0;
        data[3] = 36;
    }
    return data;
}

// The second request of READ FORMAT CAPACITY is for byte 3 + 4 bytes, that of the others for bytes
// 0-1 + 2: 40.
constexpr unsigned kFullLength = 40;

class MmcCommand : public DiscTest {
  protected:
    std::string TextFor(const Command &command, int result = DEV_QUERY_OK) {
        info_ = command.info;
        return TextOf(command.query, result);
    }
};

TEST_F(MmcCommand, IsSentAgainForTheLengthInTheReply) {
    for (const Command &command : kCommands) {
        SCOPED_TRACE(command.label);
        drive_.Reply(command.cdb[0], FullReply(command));
        drive_.requests.clear();
        TextFor(command);
        ASSERT_EQ(command.sentTwice ? 2U : 1U, drive_.requests.size());
        ExpectDataIn(drive_.requests[0], command.cdb, command.length);
        if (command.sentTwice) {
            Bytes cdb = command.cdb;
            cdb[cdb.size() == 12 ? 9 : 8] = kFullLength;
            ExpectDataIn(drive_.requests[1], cdb, kFullLength);
        }
    }
}

TEST_F(MmcCommand, HasTheNameThatSgDecodeSenseGivesItsOpcode) {
    for (const Command &command : kCommands) {
        if (command.peerName != nullptr) {
            EXPECT_EQ(command.peerName,
                      RunCommand("sg_decode_sense --cdb " + HexText(command.cdb)));
        }
    }
}

TEST_F(MmcCommand, FailsWhenEitherRequestFails) {
    for (const Command &command : kCommands) {
        const std::string fail =
            std::string{"DEV:Dev_ExecMMC(): ((/dev/sr0) "} + command.label + ") Fail";
        for (size_t good = 0; good < (command.sentTwice ? 2U : 1U); ++good) {
            drive_.requests.clear();
            for (size_t i = 0; i < good; ++i) {
                drive_.Next(command.cdb[0], SgAnswer::Data(FullReply(command)));
            }
            drive_.Next(command.cdb[0], SgAnswer::Check(0x03, 0x11, 0x00));
            info_ = command.info;
            EXPECT_EQ(Lines{fail}, LinesOf(command.query, DEV_QUERY_FAILED));
            EXPECT_EQ(good + 1, drive_.requests.size()) << "no further request";
            EXPECT_TRUE(command.info == info_) << command.label;
        }
    }
}

TEST_F(MmcCommand, FailsWithoutDriver) {
    for (const Command &command : kCommands) {
        drive_.driverVersion = 29999;
        TextFor(command, DEV_QUERY_FAILED);
        drive_.driverVersion = 30000;
        drive_.Next(command.cdb[0], SgAnswer::Error(EIO));
        TextFor(command, DEV_QUERY_FAILED);
        EXPECT_TRUE(command.info == info_) << command.label;
    }
}

// A drive may announce more than it sends.
TEST_F(MmcCommand, ReadsBytesThatDidNotArriveAsZero) {
    for (const Command &command : kCommands) {
        const Bytes whole = FullReply(command);
        for (size_t length = 0; length <= whole.size(); ++length) {
            SCOPED_TRACE(std::string{command.label} + " of " + std::to_string(length));
            drive_.Reply(command.cdb[0], whole);
            drive_.cut[command.cdb[0]] = length;
            info_ = command.info;
            int cut = -1;
            int padded = -1;
            const std::string text = Capture([&] { cut = command.query(kNode, fd_, &info_); });
            const tDiscInfo found = info_;
            drive_.cut.clear();
            Bytes zeroed = whole;
            std::fill(zeroed.begin() + static_cast<std::ptrdiff_t>(length), zeroed.end(), 0);
            drive_.Reply(command.cdb[0], zeroed);
            info_ = command.info;
            EXPECT_EQ(text, Capture([&] { padded = command.query(kNode, fd_, &info_); }));
            EXPECT_EQ(padded, cut);
            EXPECT_TRUE(found == info_);
        }
    }
}

// Some bridges deliver all data and report a residue of the whole length, or any other.
TEST_F(MmcCommand, IgnoresTheResidue) {
    for (const Command &command : kCommands) {
        drive_.Reply(command.cdb[0], FullReply(command));
        const std::string expected = TextFor(command);
        const tDiscInfo found = info_;
        SgAnswer answer = SgAnswer::Data(FullReply(command));
        for (const int residue : {0, 1, 36, 40, 252, 65535, INT_MAX, -1, INT_MIN}) {
            answer.residue = residue;
            for (int i = 0; i < (command.sentTwice ? 2 : 1); ++i) {
                drive_.Next(command.cdb[0], answer);
            }
            EXPECT_EQ(expected, TextFor(command)) << command.label << " " << residue;
            EXPECT_TRUE(found == info_) << command.label << " " << residue;
        }
    }
}

// The first request brings 36 bytes, the second one 20, which end before the track's size.
TEST_F(MmcCommand, ReadsNothingBeyondTheSecondRequest) {
    Bytes data(36, 0);
    data[1] = 18;
    data[19] = 7;  // free blocks
    data[27] = 9;  // track size
    drive_.Reply(0x52, data);
    info_ = WithLastTrack(1);
    TextOf(Dev_ReadTrackInfo);
    EXPECT_EQ(20U, drive_.requests.back().length);
    EXPECT_EQ(7U, info_.freeBlocks);
    EXPECT_EQ(0U, info_.trackSize);
}

TEST_F(MmcCommand, FailsWithoutDescriptor) {
    for (const Command &command : kCommands) {
        if (command.query != BufferCapacity) {
            drive_.requests.clear();
            const Lines lines = CaptureLog(
                [&] { EXPECT_EQ(DEV_QUERY_FAILED, command.query(kNode, fd_, nullptr)); });
            ASSERT_EQ(1U, lines.size());
            EXPECT_NE(std::string::npos, lines[0].find("(): Get Null ptr"));
            EXPECT_TRUE(drive_.requests.empty());
        }
    }
}

// A length in the first two bytes of a reply, and the length of the second request.
struct LengthCase {
    uint16_t announced;
    unsigned requested;
};

template <size_t kCount>
void ExpectLengths(SimulatedDrive &drive, int fd, const Command &command,
                   const LengthCase (&cases)[kCount]) {
    for (const LengthCase &item : cases) {
        drive.Reply(command.cdb[0], {static_cast<uint8_t>(item.announced >> 8),
                                     static_cast<uint8_t>(item.announced)});
        drive.requests.clear();
        tDiscInfo info = command.info;
        Capture([&] { command.query(kNode, fd, &info); });
        ASSERT_EQ(2U, drive.requests.size());
        Bytes cdb = command.cdb;
        const size_t at = cdb.size() == 12 ? 8 : 7;
        cdb[at] = static_cast<uint8_t>(item.requested >> 8);
        cdb[at + 1] = static_cast<uint8_t>(item.requested);
        ExpectDataIn(drive.requests[1], cdb, item.requested);
    }
}

const Command &CommandOf(Query query) {
    for (const Command &command : kCommands) {
        if (command.query == query) {
            return command;
        }
    }
    ADD_FAILURE();
    return kCommands[0];
}

TEST_F(MmcCommand, RequestsAtMost255BytesOfDiscInformation) {
    ExpectLengths(drive_, fd_, CommandOf(Dev_ReadDiscInfo),
                  {{0, 2},
                   {32, 34},
                   {252, 254},
                   {253, 255},
                   {254, 255},
                   {298, 255},
                   {300, 255},
                   {65535, 255}});
}

TEST_F(MmcCommand, Requests65535BytesFor65534AndMore) {
    for (const Query query : {Dev_ReadTrackInfo, Dev_ReadDvdStruct}) {
        ExpectLengths(drive_, fd_, CommandOf(query),
                      {{0, 2},
                       {34, 36},
                       {2050, 2052},
                       {65531, 65533},
                       {65532, 65535},
                       {65533, 65535},
                       {65535, 65535}});
    }
}

// The allocation length of READ TOC/PMA/ATIP has two bytes.
TEST_F(MmcCommand, RequestsAtMost65535BytesOfAToc) {
    for (const Query query : {Dev_ReadCdATIP, Dev_ReadCdToc, Dev_ReadDvdRToc}) {
        ExpectLengths(
            drive_, fd_, CommandOf(query),
            {{0, 2}, {26, 28}, {65532, 65534}, {65533, 65535}, {65534, 65535}, {65535, 65535}});
    }
}

TEST_F(MmcCommand, RequestsTheCapacityListWithItsHeader) {
    const Command &command = CommandOf(Dev_ReadFormatCapacity);
    for (const unsigned listLength : {0U, 8U, 248U, 252U, 255U}) {
        drive_.Reply(0x23, {0, 0, 0, static_cast<uint8_t>(listLength)});
        drive_.requests.clear();
        TextFor(command);
        ASSERT_EQ(2U, drive_.requests.size());
        Bytes cdb = command.cdb;
        cdb[7] = static_cast<uint8_t>((listLength + 4) >> 8);
        cdb[8] = static_cast<uint8_t>(listLength + 4);
        ExpectDataIn(drive_.requests[1], cdb, listLength + 4);
    }
}

}  // namespace
