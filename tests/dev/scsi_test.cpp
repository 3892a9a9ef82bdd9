#include "dev/scsi.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/canary.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/private_world.h"
#include "support/simulated_drive.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

constexpr const char *kNode = "/dev/sg1";

// The values that other programs are compiled with.
static_assert(DEV_MMC_OK == 0 && DEV_MMC_NO_VERSION == -1 && DEV_MMC_OLD_DRIVER == -2 &&
              DEV_MMC_IOCTL_FAILED == -3 && DEV_MMC_CHECK_CONDITION == -4);
static_assert(DEV_MMC_QUIET == 0 && DEV_MMC_VERBOSE == 1);
static_assert(DEV_QUERY_FAILED == 0 && DEV_QUERY_OK == 1);
static_assert(DEV_LABEL_SIZE == 64 && DEV_SENSE_SIZE == 64 && DEV_MODEL_SIZE == 25 &&
              DEV_REPLY_SIZE == 65536 && DEV_MMC_TIMEOUT_MS == 20000);

TEST(MmcCmd, HasLabelAndKernelRecord) {
    EXPECT_EQ(64U, offsetof(tMmcCmd, hdr));
    EXPECT_EQ(64 + sizeof(sg_io_hdr_t), sizeof(tMmcCmd));
    if (sizeof(void *) == 4) {
        EXPECT_EQ(128U, sizeof(tMmcCmd));
    }
}

// A drive and a request with opcode 25h, whose reply buffer has exactly the requested length.
class ExecMmc : public ::testing::Test {
  protected:
    explicit ExecMmc(unsigned length = 8) : reply_(length, 0) {
        snprintf(cmd_.label, sizeof cmd_.label, "(%s) READ CAPACITY", kNode);
        cmd_.hdr.interface_id = 'S';
        cmd_.hdr.dxfer_direction = SG_DXFER_FROM_DEV;
        cmd_.hdr.cmd_len = sizeof cdb_;
        cmd_.hdr.cmdp = cdb_;
        cmd_.hdr.mx_sb_len = sizeof sense_;
        cmd_.hdr.sbp = sense_;
        cmd_.hdr.timeout = DEV_MMC_TIMEOUT_MS;
        Ask(length);
        drive_.Reply(0x25, Bytes(64, 0x11));
    }
    ~ExecMmc() override { close(fd_); }

    void Ask(unsigned length) {
        cmd_.hdr.dxfer_len = length;
        cmd_.hdr.dxferp = reply_.bytes();
    }
    Lines LogOf(int result, int verbose) { return LogLines(TextOf(result, verbose)); }
    std::string TextOf(int result, int verbose) {
        return Capture([&] { EXPECT_EQ(result, Dev_ExecMMC(&cmd_, fd_, verbose)); });
    }

    SimulatedDrive drive_{{kNode}};
    int fd_ = drive_.Open();
    uint8_t cdb_[10] = {0x25};
    uint8_t sense_[DEV_SENSE_SIZE] = {};
    CanaryBuf reply_;
    tMmcCmd cmd_ = {};
};

TEST_F(ExecMmc, LogsNothingForAQuietSuccess) {
    EXPECT_EQ("", TextOf(DEV_MMC_OK, DEV_MMC_QUIET));
    EXPECT_EQ(1U, drive_.requests.size());
    EXPECT_EQ(0x11, reply_.bytes()[7]);
}

TEST_F(ExecMmc, FailsWhenTheDriverVersionCannotBeRead) {
    drive_.versionError = ENOTTY;
    EXPECT_EQ(Lines{"DEV:Dev_ExecMMC(): ioctl() error : Inappropriate ioctl for device"},
              LogOf(DEV_MMC_NO_VERSION, DEV_MMC_QUIET));
    EXPECT_TRUE(drive_.requests.empty());
    const Lines lines =
        CaptureLog([&] { EXPECT_EQ(DEV_MMC_NO_VERSION, Dev_ExecMMC(&cmd_, -1, DEV_MMC_VERBOSE)); });
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(0U, lines[0].find("DEV:Dev_ExecMMC(): ioctl() error : "));
}

TEST_F(ExecMmc, RefusesADriverOlderThanThree) {
    drive_.driverVersion = 29999;
    EXPECT_EQ(Lines{"DEV:Dev_ExecMMC(): \"(/dev/sg1) READ CAPACITY\"(25h) ver. too old(29999)"},
              LogOf(DEV_MMC_OLD_DRIVER, DEV_MMC_QUIET));
    EXPECT_TRUE(drive_.requests.empty());
    drive_.driverVersion = 30000;
    EXPECT_EQ(Lines{}, LogOf(DEV_MMC_OK, DEV_MMC_QUIET));
    drive_.driverVersion = 30001;
    EXPECT_EQ(Lines{}, LogOf(DEV_MMC_OK, DEV_MMC_QUIET));
}

TEST_F(ExecMmc, LogsAFailedIoctlAndDoesNotRepeatIt) {
    cdb_[0] = 0xAD;
    drive_.Next(0xAD, SgAnswer::Error(EIO));
    EXPECT_EQ(Lines{"DEV:Dev_ExecMMC(): (/dev/sg1) READ CAPACITY (ADh) SG_IO ioctl error : "
                    "Input/output error"},
              LogOf(DEV_MMC_IOCTL_FAILED, DEV_MMC_QUIET));
    cdb_[0] = 0x00;
    drive_.Next(0x00, SgAnswer::Error(ENOMEM));
    EXPECT_EQ(Lines{"DEV:Dev_ExecMMC(): (/dev/sg1) READ CAPACITY (00h) SG_IO ioctl error : "
                    "Cannot allocate memory"},
              LogOf(DEV_MMC_IOCTL_FAILED, DEV_MMC_VERBOSE));
    EXPECT_EQ(2U, drive_.requests.size());
}

TEST_F(ExecMmc, LogsOneLineForAQuietCheckCondition) {
    drive_.Next(0x25, SgAnswer::Check(0x02, 0x3A, 0x01));
    EXPECT_EQ(Lines{"DEV:Dev_ExecMMC(): ((/dev/sg1) READ CAPACITY) Fail"},
              LogOf(DEV_MMC_CHECK_CONDITION, DEV_MMC_QUIET));
}

TEST_F(ExecMmc, ExplainsACheckCondition) {
    drive_.Next(0x25, SgAnswer::Check(0x02, 0x3A, 0x01));
    const Lines expected = {
        "DEV:Dev_ExecMMC(): (/dev/sg1) READ CAPACITY (25h) sense data :",
        " 0x70 0x00 0x02 0x00 0x00 0x00 0x00 0x0A 0x00 0x00",
        " 0x00 0x00 0x3A 0x01 0x00 0x00 0x00 0x00",
        "Sense Key = 0x02 ",
        "Additional Sense Code = 0x3A ",
        "Additional Sense Code Qualifier= 0x01",
        "DEV:Dev_ExecMMC(): (/dev/sg1) READ CAPACITY scsi status = 0x02",
        "DEV:Dev_ExecMMC(): (/dev/sg1) READ CAPACITY driver status = 0x08",
        "DEV:Dev_ExecMMC(): ((/dev/sg1) READ CAPACITY) Fail",
    };
    EXPECT_EQ(expected, LogOf(DEV_MMC_CHECK_CONDITION, DEV_MMC_VERBOSE));
}

// A line break precedes bytes 10, 20 ..., and a newline follows the last byte.
TEST_F(ExecMmc, PrintsSenseInRowsOfTen) {
    for (const size_t count : {1, 9, 10, 11, 19, 20, 21, 63, 64}) {
        SgAnswer answer = SgAnswer::Check(0x05, 0x24, 0x00);
        answer.sense.resize(count);
        std::string expected;
        for (size_t i = 0; i < count; ++i) {
            char text[8];
            snprintf(text, sizeof text, " 0x%02X", answer.sense[i]);
            expected += (i > 0 && i % 10 == 0 ? "\n" : "") + std::string{text};
        }
        memset(sense_, 0, sizeof sense_);
        drive_.Next(0x25, answer);
        const std::string output =
            TextOf(count >= 3 ? int{DEV_MMC_CHECK_CONDITION} : int{DEV_MMC_OK}, DEV_MMC_VERBOSE);
        EXPECT_NE(std::string::npos, output.find("sense data :\n" + expected + "\nSense Key = "))
            << count << "\n"
            << output;
    }
}

TEST_F(ExecMmc, LogsEachStatusThatIsNotZero) {
    SgAnswer answer;
    answer.info = 1;
    answer.hostStatus = 0x0A;
    drive_.Next(0x25, answer);
    EXPECT_EQ("DEV:Dev_ExecMMC(): (/dev/sg1) READ CAPACITY host status = 0x0A",
              LogOf(DEV_MMC_OK, DEV_MMC_VERBOSE)[0]);

    answer.hostStatus = 0;
    answer.driverStatus = 0x0A;  // the only one in lower case
    drive_.Next(0x25, answer);
    EXPECT_EQ("DEV:Dev_ExecMMC(): (/dev/sg1) READ CAPACITY driver status = 0x0a",
              LogOf(DEV_MMC_OK, DEV_MMC_VERBOSE)[0]);

    answer.driverStatus = 0;
    answer.status = 0x3E;  // this one is logged, not the masked one
    answer.maskedStatus = 0x1F;
    drive_.Next(0x25, answer);
    EXPECT_EQ("DEV:Dev_ExecMMC(): (/dev/sg1) READ CAPACITY scsi status = 0x3E",
              LogOf(DEV_MMC_OK, DEV_MMC_VERBOSE)[0]);

    answer.maskedStatus = 0;  // then the status is not logged
    drive_.Next(0x25, answer);
    EXPECT_EQ("DEV:Dev_ExecMMC(): ((/dev/sg1) READ CAPACITY) Fail",
              LogOf(DEV_MMC_OK, DEV_MMC_VERBOSE)[0]);
}

TEST_F(ExecMmc, LogsScsiThenHostThenDriverStatus) {
    SgAnswer answer;
    answer.info = 1;
    answer.status = 0x08;  // BUSY
    answer.maskedStatus = 0x04;
    answer.hostStatus = 0x02;
    answer.driverStatus = 0x01;
    drive_.Next(0x25, answer);
    const std::string start = "DEV:Dev_ExecMMC(): (/dev/sg1) READ CAPACITY ";
    const Lines lines = LogOf(DEV_MMC_OK, DEV_MMC_VERBOSE);
    EXPECT_EQ((Lines{start + "scsi status = 0x08", start + "host status = 0x02",
                     start + "driver status = 0x01"}),
              Lines(lines.begin(), lines.begin() + 3));
}

TEST_F(ExecMmc, FailsWhenSenseKeyAscOrAscqIsNotZero) {
    const struct {
        Bytes sense;
        int result;
    } cases[] = {
        {SgAnswer::Check(0x01, 0, 0).sense, DEV_MMC_CHECK_CONDITION},
        {SgAnswer::Check(0x0F, 0, 0).sense, DEV_MMC_CHECK_CONDITION},
        {SgAnswer::Check(0, 0x01, 0).sense, DEV_MMC_CHECK_CONDITION},
        {SgAnswer::Check(0, 0, 0x01).sense, DEV_MMC_CHECK_CONDITION},
        {SgAnswer::Check(0xF0, 0, 0).sense, DEV_MMC_OK},  // the high bits are not the key
        {SgAnswer::Check(0, 0, 0).sense, DEV_MMC_OK},
        {{}, DEV_MMC_OK},
    };
    for (const auto &item : cases) {
        SgAnswer answer = SgAnswer::Check(0, 0, 0);
        answer.sense = item.sense;
        memset(sense_, 0, sizeof sense_);
        drive_.Next(0x25, answer);
        TextOf(item.result, DEV_MMC_QUIET);
    }
}

// SPC-3 4.5.2: response code, key, ASC and ASCQ are bytes 0 to 3. So byte 2, the key in fixed
// format, is the ASC, and bytes 12 and 13, the ASC and ASCQ there, are descriptors or absent.
TEST_F(ExecMmc, ReadsSenseInDescriptorFormatAsFixedFormat) {
    SgAnswer answer = SgAnswer::Check(0, 0, 0);
    answer.sense = {0x72, 0x02, 0x3A, 0x00, 0, 0, 0, 0};  // not ready, no medium
    drive_.Next(0x25, answer);
    TextOf(DEV_MMC_CHECK_CONDITION, DEV_MMC_QUIET);
    answer.sense = {0x72, 0x05, 0x20, 0x00, 0, 0, 0, 0};  // invalid command; 0x20 & 0x0F is 0
    memset(sense_, 0, sizeof sense_);
    drive_.Next(0x25, answer);
    TextOf(DEV_MMC_OK, DEV_MMC_QUIET);
}

// A request that times out ends with a host status (03h: DID_TIME_OUT) and without sense data.
TEST_F(ExecMmc, ARequestWithoutAnAnswerSucceeds) {
    SgAnswer answer;
    answer.info = SG_INFO_CHECK;
    answer.hostStatus = 0x03;
    drive_.Next(0x25, answer);
    EXPECT_EQ((Lines{"DEV:Dev_ExecMMC(): ((/dev/sg1) READ CAPACITY) Fail",
                     "Special case(sense, asc, ascq) = (0, 0, 0)."}),
              LogOf(DEV_MMC_OK, DEV_MMC_QUIET));
}

TEST_F(ExecMmc, CheckConditionWithoutSenseSucceeds) {
    SgAnswer answer = SgAnswer::Check(0, 0, 0);
    answer.data = {'a', 'b'};
    drive_.Next(0x25, answer);
    EXPECT_EQ((Lines{"DEV:Dev_ExecMMC(): ((/dev/sg1) READ CAPACITY) Fail",
                     "Special case(sense, asc, ascq) = (0, 0, 0)."}),
              LogOf(DEV_MMC_OK, DEV_MMC_QUIET));

    Ask(2);
    answer.sense.clear();
    answer.maskedStatus = 0;
    answer.driverStatus = 0;
    drive_.Next(0x25, answer);
    EXPECT_EQ((Lines{"DEV:Dev_ExecMMC(): ((/dev/sg1) READ CAPACITY) Fail",
                     "Special case(sense, asc, ascq) = (0, 0, 0).",
                     "DEV:Dev_ExecMMC(): ((/dev/sg1) READ CAPACITY) Success", "",
                     "0000h  61 62 " + std::string(42, ' ') + "|ab|", ""}),
              LogOf(DEV_MMC_OK, DEV_MMC_VERBOSE));
}

// Bits of info beside the lowest describe direct transfers.
TEST_F(ExecMmc, ReadsOnlyTheCheckBitOfInfo) {
    SgAnswer answer;
    answer.info = 0x6;
    answer.sense = SgAnswer::Check(2, 0x3A, 0).sense;
    drive_.Next(0x25, answer);
    EXPECT_EQ("", TextOf(DEV_MMC_OK, DEV_MMC_QUIET));
}

class ExecMmcDump : public ExecMmc {
  protected:
    ExecMmcDump() : ExecMmc(70000) {}
    // The dump of a reply, without the line before it.
    std::string DumpOf(const Bytes &data) {
        drive_.Reply(0x25, data);
        Ask(static_cast<unsigned>(data.size()));
        const std::string output = TextOf(DEV_MMC_OK, DEV_MMC_VERBOSE);
        const std::string head = "((/dev/sg1) READ CAPACITY) Success\n\n";
        const size_t at = output.find(head);
        EXPECT_NE(std::string::npos, at) << output;
        return at == std::string::npos ? "" : output.substr(at + head.size());
    }
};

TEST_F(ExecMmcDump, PadsTheLastRowWithBlanks) {
    Bytes data;
    for (int i = 0; i < 20; ++i) {
        data.push_back(static_cast<uint8_t>('A' + i));
    }
    EXPECT_EQ(
        "0000h  41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 |ABCDEFGHIJKLMNOP|\n"
        "0010h  51 52 53 54                                     |QRST|\n"
        "\n",
        DumpOf(data));
}

TEST_F(ExecMmcDump, HasNoEmptyRow) {
    EXPECT_EQ("\n", DumpOf({}));
    EXPECT_EQ("0000h  30 " + std::string(45, ' ') + "|0|\n\n", DumpOf({'0'}));
    EXPECT_EQ("0000h  30 30 30 30 30 30 30 30 30 30 30 30 30 30 30    |000000000000000|\n\n",
              DumpOf(Bytes(15, '0')));
    EXPECT_EQ("0000h  30 30 30 30 30 30 30 30 30 30 30 30 30 30 30 30 |0000000000000000|\n\n",
              DumpOf(Bytes(16, '0')));
}

TEST_F(ExecMmcDump, ShowsHighBytesUnchanged) {
    EXPECT_EQ("0000h  00 1F 20 7E 7F 80 FF                            |.. ~\x7F\x80\xFF|\n\n",
              DumpOf({0x00, 0x1F, 0x20, 0x7E, 0x7F, 0x80, 0xFF}));
}

TEST_F(ExecMmcDump, WritesOffsetsInLowerCase) {
    const std::string dump = DumpOf(Bytes(0x10000 + 16, ' '));
    EXPECT_NE(std::string::npos, dump.find("\n00a0h  20 "));
    EXPECT_NE(std::string::npos, dump.find("\nfff0h  20 "));
    EXPECT_NE(std::string::npos, dump.find("\n10000h  20 "));
}

// Bytes that did not arrive are 0.
TEST_F(ExecMmcDump, ShowsAllRequestedBytes) {
    memset(reply_.bytes(), 0, 18);
    drive_.Reply(0x25, Bytes(2, 'x'));
    Ask(18);
    EXPECT_EQ((Lines{"DEV:Dev_ExecMMC(): ((/dev/sg1) READ CAPACITY) Success", "",
                     "0000h  78 78 00 00 00 00 00 00 00 00 00 00 00 00 00 00 |xx..............|",
                     "0010h  00 00 " + std::string(42, ' ') + "|..|", ""}),
              LogOf(DEV_MMC_OK, DEV_MMC_VERBOSE));
}

TEST_F(ExecMmc, AcceptsMissingBuffersAndRefusesNull) {
    EXPECT_EQ(Lines{"DEV:Dev_ExecMMC(): Get Null ptr"}, CaptureLog([&] {
                  EXPECT_EQ(DEV_MMC_NO_VERSION, Dev_ExecMMC(nullptr, fd_, DEV_MMC_VERBOSE));
              }));
    // Without a sense buffer there is no sense, even if the driver reports a length.
    drive_.Next(0x25, SgAnswer::Check(0x02, 0x3A, 0x00));
    cmd_.hdr.sbp = nullptr;
    cmd_.hdr.mx_sb_len = 0;
    TextOf(DEV_MMC_OK, DEV_MMC_VERBOSE);
    // Without a reply buffer the dump is empty.
    cmd_.hdr.dxferp = nullptr;
    cmd_.hdr.dxfer_direction = SG_DXFER_NONE;
    EXPECT_EQ((Lines{"DEV:Dev_ExecMMC(): ((/dev/sg1) READ CAPACITY) Success", "", ""}),
              LogOf(DEV_MMC_OK, DEV_MMC_VERBOSE));
}

// The driver reports more sense bytes than the buffer has.
TEST(ExecMmcSense, IsReadOnlyInsideItsBuffer) {
    SimulatedDrive drive{{kNode}};
    const int fd = drive.Open();
    for (const int room : {0, 2, 3, 12, 13, 14, 18}) {
        const auto size = static_cast<uint8_t>(room);
        const GuardedCopy sense{Bytes(size, 0).data(), size};
        uint8_t cdb[6] = {0x03};
        tMmcCmd cmd = {};
        cmd.hdr.cmd_len = sizeof cdb;
        cmd.hdr.cmdp = cdb;
        cmd.hdr.mx_sb_len = size;
        cmd.hdr.sbp = sense.bytes();
        drive.claimedSense = 255;
        drive.Next(0x03, SgAnswer::Check(0x02, 0x3A, 0x01));
        const int result = size >= 3 ? int{DEV_MMC_CHECK_CONDITION} : int{DEV_MMC_OK};
        Capture([&] { EXPECT_EQ(result, Dev_ExecMMC(&cmd, fd, DEV_MMC_VERBOSE)); });
    }
    close(fd);
}

class Drive : public ::testing::Test {
  protected:
    Drive() { drive_.Load("drive.hex"); }
    ~Drive() override { close(fd_); }
    SimulatedDrive drive_{{kNode}};
    int fd_ = drive_.Open();
};

void ExpectUsualForm(const SgRequest &request) {
    EXPECT_EQ('S', request.interfaceId);
    EXPECT_EQ(unsigned{DEV_MMC_TIMEOUT_MS}, request.timeout);
    EXPECT_EQ(unsigned{DEV_SENSE_SIZE}, request.senseSize);
    EXPECT_TRUE(request.cleared);
}

class TestUnitReady : public Drive {};

TEST_F(TestUnitReady, TransfersNoData) {
    TakePauses();
    EXPECT_EQ("", Capture([&] { EXPECT_EQ(DEV_QUERY_OK, Dev_TestUnitReady(kNode, fd_)); }));
    ASSERT_EQ(1U, drive_.requests.size());
    const SgRequest &request = drive_.requests[0];
    EXPECT_EQ(Bytes(6, 0), request.cdb);
    EXPECT_EQ(SG_DXFER_NONE, request.direction);
    EXPECT_EQ(0U, request.length);
    ExpectUsualForm(request);
    EXPECT_EQ(std::vector<double>{}, TakePauses());
}

TEST_F(TestUnitReady, PausesASecondAfterEachFailure) {
    const std::string fail = "DEV:Dev_ExecMMC(): ((/dev/sg1) TEST UNIT READY) Fail";
    for (int failures = 0; failures <= 4; ++failures) {
        SimulatedDrive drive;
        const int fd = drive.Open();
        for (int i = 0; i < failures; ++i) {
            drive.Next(0x00, SgAnswer::Check(0x02, 0x04, 0x01));  // becoming ready
        }
        TakePauses();
        const int result = failures < 3 ? DEV_QUERY_OK : DEV_QUERY_FAILED;
        const int tries = failures < 3 ? failures + 1 : 3;
        const int failed = failures < 3 ? failures : 3;
        EXPECT_EQ(Lines(static_cast<size_t>(failed), fail),
                  CaptureLog([&] { EXPECT_EQ(result, Dev_TestUnitReady(kNode, fd)); }));
        EXPECT_EQ(static_cast<size_t>(tries), drive.requests.size());
        for (const SgRequest &request : drive.requests) {
            ExpectUsualForm(request);
        }
        EXPECT_EQ(std::vector<double>(static_cast<size_t>(failed), 1.0), TakePauses());
        close(fd);
    }
}

TEST_F(TestUnitReady, EveryKindOfFailureMeansNotReady) {
    drive_.driverVersion = 29999;
    Capture([&] { EXPECT_EQ(DEV_QUERY_FAILED, Dev_TestUnitReady(kNode, fd_)); });
    Capture([] { EXPECT_EQ(DEV_QUERY_FAILED, Dev_TestUnitReady(kNode, -1)); });
    EXPECT_EQ(6U, TakePauses().size());
    drive_.driverVersion = 30000;
    drive_.Next(0x00, SgAnswer::Error(EBUSY));
    Capture([&] { EXPECT_EQ(DEV_QUERY_OK, Dev_TestUnitReady(kNode, fd_)); });
}

// The label has 64 bytes.
TEST_F(TestUnitReady, CutsTheLabelOfALongPath) {
    drive_.Always(0x00, SgAnswer::Check(0x02, 0x3A, 0x00));
    const std::string path(100, 'p');
    EXPECT_EQ("DEV:Dev_ExecMMC(): ((" + std::string(62, 'p') + ") Fail",
              CaptureLog([&] { Dev_TestUnitReady(path.c_str(), fd_); })[0]);
    EXPECT_EQ("DEV:Dev_ExecMMC(): (() TEST UNIT READY) Fail",
              CaptureLog([&] { Dev_TestUnitReady(nullptr, fd_); })[0]);
}

class Inquiry : public Drive {
  protected:
    // The model made of 24 bytes of vendor and product.
    std::string ModelOf(const std::string &text) {
        EXPECT_EQ(24U, text.size());
        drive_.Patch(0x12, 8, Bytes(text.begin(), text.end()));
        const CanaryBuf model{DEV_MODEL_SIZE};
        Capture([&] { EXPECT_EQ(DEV_QUERY_OK, Dev_Inquiry(kNode, fd_, model.text())); });
        for (size_t i = strlen(model.text()); i < model.size(); ++i) {
            EXPECT_EQ('\0', model.text()[i]) << "the rest is zeroed";
        }
        return model.text();
    }
};

TEST_F(Inquiry, Requests96Bytes) {
    char model[DEV_MODEL_SIZE];
    Capture([&] { EXPECT_EQ(DEV_QUERY_OK, Dev_Inquiry(kNode, fd_, model)); });
    ASSERT_EQ(1U, drive_.requests.size());
    const SgRequest &request = drive_.requests[0];
    EXPECT_EQ((Bytes{0x12, 0, 0, 0, 0x60, 0}), request.cdb);
    EXPECT_EQ(SG_DXFER_FROM_DEV, request.direction);
    EXPECT_EQ(96U, request.length);
    ExpectUsualForm(request);
}

TEST_F(Inquiry, LogsVendorProductAndRevision) {
    char model[DEV_MODEL_SIZE];
    char first[128];
    snprintf(first, sizeof first, "DEV:Dev_Inquiry(): [/dev/sg1] : pModel = %p",
             static_cast<void *>(model));
    EXPECT_EQ((Lines{first, "DEV:Dev_Inquiry(): Vendor          = DRV     ",
                     "DEV:Dev_Inquiry(): Product ID      = WR-24X   B      ",
                     "DEV:Dev_Inquiry(): Revision        = 1.02",
                     "DEV:Dev_Inquiry(): pModel = [DRV WR24X B]"}),
              CaptureLog([&] { EXPECT_EQ(DEV_QUERY_OK, Dev_Inquiry(kNode, fd_, model)); }));
    EXPECT_STREQ("DRV WR24X B", model);
}

TEST_F(Inquiry, AcceptsNullForPathAndModel) {
    const Lines lines =
        CaptureLog([&] { EXPECT_EQ(DEV_QUERY_OK, Dev_Inquiry(nullptr, fd_, nullptr)); });
    ASSERT_EQ(5U, lines.size());
    EXPECT_EQ("DEV:Dev_Inquiry(): [] : pModel = (nil)", lines[0]);
    EXPECT_EQ("DEV:Dev_Inquiry(): pModel = [(null)]", lines[4]);
}

TEST_F(Inquiry, CompactsTheModel) {
    EXPECT_EQ("DRV WR24X B", ModelOf("DRV     WR-24X   B      "));
    EXPECT_EQ(" WR24X B", ModelOf("        WR-24X   B      "));
    EXPECT_EQ("", ModelOf("                        "));
    EXPECT_EQ("", ModelOf("------------------------"));
    EXPECT_EQ("abcdefghijklmnopqrstuvwx", ModelOf("abcdefghijklmnopqrstuvwx"));
    EXPECT_EQ("azAZ09", ModelOf("a`z{A@Z[0/9:\t\n\x7F\x80\xC4\xFF      "));
    // A dropped character neither ends a run of spaces nor begins one.
    EXPECT_EQ("A B", ModelOf("A - - - -- - - -  - - -B"));
}

TEST_F(Inquiry, LeavesTheModelUnchangedAfterAFailure) {
    const CanaryBuf model{DEV_MODEL_SIZE};
    drive_.Next(0x12, SgAnswer::Check(0x05, 0x24, 0x00));
    EXPECT_EQ(Lines{"DEV:Dev_ExecMMC(): ((/dev/sg1) INQUIRY) Fail"}, CaptureLog([&] {
                  EXPECT_EQ(DEV_QUERY_FAILED, Dev_Inquiry(kNode, fd_, model.text()));
              }));
    EXPECT_TRUE(model.UntouchedFrom(0));
}

// Bytes that did not arrive are 0 and end the text.
TEST_F(Inquiry, AcceptsAReplyOfAnyLength) {
    const std::string whole = "DRV     WR-24X   B      ";
    for (size_t length = 0; length <= 96; ++length) {
        drive_.cut[0x12] = length;
        const CanaryBuf model{DEV_MODEL_SIZE};
        const Lines lines =
            CaptureLog([&] { EXPECT_EQ(DEV_QUERY_OK, Dev_Inquiry(kNode, fd_, model.text())); });
        const auto part = [&](size_t from, size_t count) {
            return length <= from ? "" : whole.substr(from - 8, std::min(count, length - from));
        };
        EXPECT_EQ("DEV:Dev_Inquiry(): Vendor          = " + part(8, 8), lines[1]);
        EXPECT_EQ("DEV:Dev_Inquiry(): Product ID      = " + part(16, 16), lines[2]);
        if (length <= 9) {
            EXPECT_STREQ(length == 9 ? "D" : "", model.text());
        }
        EXPECT_EQ("DEV:Dev_Inquiry(): pModel = [" + std::string{model.text()} + "]", lines[4]);
    }
}

TEST_F(Inquiry, AgreesWithSgInq) {
    const TempDir dir;
    WriteFile(dir / "inquiry.hex", HexText(drive_.Data(0x12)) + "\n");
    const std::string output = RunCommand("sg_inq --inhex=" + (dir / "inquiry.hex"));
    const Lines lines = CaptureLog([&] { Dev_Inquiry(kNode, fd_, nullptr); });
    const auto fact = [](const std::string &text, const std::string &key) {
        const size_t at = text.find(key);
        return at == std::string::npos
                   ? "missing"
                   : text.substr(at + key.size(), text.find('\n', at) - at - key.size());
    };
    const auto padded = [](std::string text, size_t size) {
        return text.append(size - text.size(), ' ');
    };
    EXPECT_EQ("DEV:Dev_Inquiry(): Vendor          = " +
                  padded(fact(output, "Vendor identification: "), 8),
              lines[1])
        << output;
    EXPECT_EQ("DEV:Dev_Inquiry(): Product ID      = " +
                  padded(fact(output, "Product identification: "), 16),
              lines[2])
        << output;
    EXPECT_EQ("DEV:Dev_Inquiry(): Revision        = " +
                  padded(fact(output, "Product revision level: "), 4),
              lines[3])
        << output;
}

// Debian's decoder reads the same sense key and codes.
TEST_F(Drive, SenseAgreesWithSgDecodeSense) {
    const struct {
        uint8_t key;
        uint8_t asc;
        uint8_t ascq;
        const char *keyText;
        const char *codeText;
    } cases[] = {
        {0x02, 0x3A, 0x00, "Not Ready", "Medium not present"},
        {0x02, 0x04, 0x01, "Not Ready", "in process of becoming ready"},
        {0x05, 0x20, 0x00, "Illegal Request", "Invalid command operation code"},
        {0x06, 0x28, 0x00, "Unit Attention", "medium may have changed"},
    };
    for (const auto &item : cases) {
        const SgAnswer answer = SgAnswer::Check(item.key, item.asc, item.ascq);
        const std::string output = RunCommand("sg_decode_sense " + HexText(answer.sense));
        EXPECT_NE(std::string::npos, output.find(item.keyText)) << output;
        EXPECT_NE(std::string::npos, output.find(item.codeText)) << output;
        drive_.Next(0x5C, answer);
        uint8_t cdb[10] = {0x5C};
        uint8_t sense[64] = {};
        tMmcCmd cmd = {};
        cmd.hdr.cmd_len = sizeof cdb;
        cmd.hdr.cmdp = cdb;
        cmd.hdr.mx_sb_len = sizeof sense;
        cmd.hdr.sbp = sense;
        char expected[128];
        snprintf(expected, sizeof expected,
                 "Sense Key = 0x%02X \nAdditional Sense Code = 0x%02X \nAdditional Sense Code "
                 "Qualifier= 0x%02X\n",
                 item.key, item.asc, item.ascq);
        EXPECT_NE(std::string::npos, Capture([&] {
                                         EXPECT_EQ(DEV_MMC_CHECK_CONDITION,
                                                   Dev_ExecMMC(&cmd, fd_, DEV_MMC_VERBOSE));
                                     }).find(expected));
    }
}

}  // namespace
