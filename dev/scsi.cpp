// SCSI requests through the Linux generic driver, TEST UNIT READY and INQUIRY.

#include "dev/scsi.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <span>

#include "base/byte_reader.h"
#include "base/heap_buf.h"
#include "common/command.h"
#include "dev/internal/mmc_request.h"
#include "dev/internal/module_log.h"

namespace talvek {
namespace {

constexpr int kOldestDriver = 30000;  // sg 3.0, the first with SG_IO

struct Sense {
    uint8_t key;
    uint8_t asc;
    uint8_t ascq;
    [[nodiscard]] bool Empty() const { return key == 0 && asc == 0 && ascq == 0; }
};

// The sense buffer starts zeroed, so what the device did not send reads as zero.
Sense ReadSense(const sg_io_hdr_t &hdr) {
    BigEndianReader sense{hdr.sbp, hdr.mx_sb_len};
    return {static_cast<uint8_t>(sense.U8(2) & 0x0F), sense.U8(12), sense.U8(13)};
}

unsigned Opcode(const sg_io_hdr_t &hdr) {
    return hdr.cmdp != nullptr && hdr.cmd_len > 0 ? hdr.cmdp[0] : 0U;
}

void PrintSense(const sg_io_hdr_t &hdr, const Sense &sense) {
    const BigEndianReader whole{hdr.sbp, hdr.mx_sb_len};
    int column = 0;
    for (const uint8_t byte : whole.Sub(0, hdr.sb_len_wr)) {
        if (column == 10) {
            printf("\n");
            column = 0;
        }
        printf(" 0x%02X", byte);
        ++column;
    }
    printf("\n");
    printf("Sense Key = 0x%02X \n", sense.key);
    printf("Additional Sense Code = 0x%02X \n", sense.asc);
    printf("Additional Sense Code Qualifier= 0x%02X\n", sense.ascq);
}

void ExplainCheck(const tMmcCmd &cmd, const Sense &sense) {
    const sg_io_hdr_t &hdr = cmd.hdr;
    if (hdr.sb_len_wr != 0) {
        LOG_AS("Dev_ExecMMC", "%s (%02Xh) sense data :\n", cmd.label, Opcode(hdr));
        PrintSense(hdr, sense);
    }
    if (hdr.masked_status != 0) {
        LOG_AS("Dev_ExecMMC", "%s scsi status = 0x%02X\n", cmd.label, hdr.status);
    }
    if (hdr.host_status != 0) {
        LOG_AS("Dev_ExecMMC", "%s host status = 0x%02X\n", cmd.label, hdr.host_status);
    }
    if (hdr.driver_status != 0) {
        LOG_AS("Dev_ExecMMC", "%s driver status = 0x%02x\n", cmd.label, hdr.driver_status);
    }
}

constexpr size_t kRowBytes = 16;
constexpr int kHexColumns = 3 * static_cast<int>(kRowBytes);

// Bytes of 0x7F and more are shown as they are. Held by ExecMmcDump.ShowsHighBytesAsThemselves.
void DumpRow(size_t offset, std::span<const uint8_t> row) {
    char hex[kHexColumns + 1] = "";
    char text[kRowBytes + 1] = "";
    for (size_t i = 0; i < row.size(); ++i) {
        snprintf(hex + 3 * i, sizeof hex - 3 * i, "%02X ", row[i]);
        text[i] = row[i] < 0x20 ? '.' : static_cast<char>(row[i]);
    }
    printf("%04zxh  %-*s|%.16s|\n", offset, kHexColumns, hex, text);
}

void DumpReply(const sg_io_hdr_t &hdr) {
    // A scatter list stands in dxferp's place when iovec_count is not 0; it is no reply.
    const bool plain = hdr.dxferp != nullptr && hdr.iovec_count == 0;
    const std::span<const uint8_t> reply{static_cast<const uint8_t *>(hdr.dxferp),
                                         plain ? hdr.dxfer_len : 0};
    for (size_t at = 0; at < reply.size(); at += kRowBytes) {
        DumpRow(at, reply.subspan(at, std::min(kRowBytes, reply.size() - at)));
    }
    printf("\n");
}

// Decides about a reply with the check bit set: 0 to go on as a success, -4 otherwise.
int CheckCondition(const tMmcCmd &cmd, bool verbose) {
    const Sense sense = ReadSense(cmd.hdr);
    if (verbose) {
        ExplainCheck(cmd, sense);
    }
    LOG_AS("Dev_ExecMMC", "(%s) Fail\n", cmd.label);
    if (!sense.Empty()) {
        return -4;
    }
    // Some drives raise a check condition without real sense data; their command has succeeded.
    // Held by ExecMmc.CheckConditionWithoutSenseSucceeds.
    puts("Special case(sense, asc, ascq) = (0, 0, 0).");
    fflush(stdout);
    return 0;
}

// Keeps one space of a run and drops what is neither letter, digit nor space. A leading space
// stays, one at the end goes. Held by Inquiry.CompactsTheModel.
void CompactModel(const char *pText, std::span<char> model) {
    std::fill(model.begin(), model.end(), '\0');
    size_t length = 0;
    bool afterSpace = false;
    for (const char *at = pText; *at != '\0'; ++at) {
        const bool alphanumeric =
            (*at >= '0' && *at <= '9') || (*at >= 'A' && *at <= 'Z') || (*at >= 'a' && *at <= 'z');
        if (alphanumeric || (*at == ' ' && !afterSpace)) {
            model[length++] = *at;
            afterSpace = *at == ' ';
        }
    }
    if (length > 0 && model[length - 1] == ' ') {
        model[length - 1] = '\0';
    }
}

constexpr std::array<uint8_t, 6> kTestUnitReady = {0x00, 0, 0, 0, 0, 0};
constexpr int kReadyTries = 3;
constexpr timespec kReadyPause = {1, 0};
constexpr int kPauseRounds = 1000;

constexpr uint8_t kInquiryLength = 96;
constexpr std::array<uint8_t, 6> kInquiry = {0x12, 0, 0, 0, kInquiryLength, 0};
constexpr size_t kModelLength = 24;

}  // namespace
}  // namespace talvek

int Dev_ExecMMC(tMmcCmd *cmd, int fd, int verbose) {
    using namespace talvek;
    if (cmd == nullptr) {
        LOG("Get Null ptr\n");
        return -1;
    }
    int version = 0;
    if (ioctl(fd, SG_GET_VERSION_NUM, &version) < 0) {
        LOG_ERRNO("ioctl() error : %s\n");
        return -1;
    }
    if (version < kOldestDriver) {
        LOG("\"%s\"(%02Xh) ver. too old(%d)\n", cmd->label, Opcode(cmd->hdr), version);
        return -2;
    }
    if (ioctl(fd, SG_IO, &cmd->hdr) < 0) {
        LOG_ERRNO("%s (%02Xh) SG_IO ioctl error : %s\n", cmd->label, Opcode(cmd->hdr));
        return -3;
    }
    if ((cmd->hdr.info & SG_INFO_CHECK) != 0 && CheckCondition(*cmd, verbose != 0) != 0) {
        return -4;
    }
    if (verbose != 0) {
        LOG("(%s) Success\n\n", cmd->label);
        DumpReply(cmd->hdr);
        fflush(stdout);
    }
    return 0;
}

int Dev_TestUnitReady(const char *devPath, int fd) {
    using namespace talvek;
    MmcRequest request{"TEST UNIT READY", devPath, kTestUnitReady, {}};
    for (int i = 0; i < kReadyTries; ++i) {
        if (request.Issue(fd, 0)) {
            return 1;
        }
        COM_SleepAtLeast(&kReadyPause, kPauseRounds);
    }
    return 0;
}

int Dev_Inquiry(const char *devPath, int fd, char *model) {
    using namespace talvek;
    const HeapBuf<uint8_t> reply{static_cast<uint8_t *>(malloc(DEV_REPLY_SIZE))};
    if (!reply) {
        LOG("reply_buf = NULL\n");
        return 0;
    }
    MmcRequest request{"INQUIRY", devPath, kInquiry, {reply.get(), DEV_REPLY_SIZE}};
    if (!request.Issue(fd, kInquiryLength)) {
        return 0;
    }
    // SPC-3 6.4.2: vendor in bytes 8-15, product in 16-31, revision in 32-35. What did not
    // arrive reads as the end of the text.
    char text[36 + 1] = "";
    const std::span<const uint8_t> received = request.reply().Sub(0, sizeof text - 1);
    std::copy(received.begin(), received.end(), text);
    LOG("[%s] : pModel = %p\n", devPath != nullptr ? devPath : "", static_cast<void *>(model));
    LOG("Vendor          = %.8s\n", text + 8);
    LOG("Product ID      = %.16s\n", text + 16);
    LOG("Revision        = %.4s\n", text + 32);
    if (model != nullptr) {
        text[8 + kModelLength] = '\0';
        CompactModel(text + 8, {model, kModelLength + 1});
    }
    LOG("pModel = [%s]\n", model != nullptr ? model : "(null)");
    return 1;
}
