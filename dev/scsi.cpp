// SCSI requests through the Linux generic driver, TEST UNIT READY and INQUIRY.

#include "dev/scsi.h"

#include <stdio.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <span>

#include "base/byte_reader.h"
#include "base/cancel_guard.h"
#include "base/characters.h"
#include "base/heap_buf.h"
#include "dev/internal/mmc_request.h"
#include "dev/internal/module_log.h"
#include "dev/internal/pause.h"

namespace {

using talvek::BigEndianReader;
using talvek::MmcRequest;

constexpr const char *kExec = "Dev_ExecMMC";
constexpr int kOldestDriver = 30000;  // sg 3.0, the first with SG_IO

struct Sense {
    uint8_t key;
    uint8_t asc;
    uint8_t ascq;
    [[nodiscard]] bool Empty() const { return key == 0 && asc == 0 && ascq == 0; }
};

// The sense buffer starts zeroed, so bytes that the device did not send read as 0.
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
        LOG_AS(kExec, "%s (%02Xh) sense data :\n", cmd.label, Opcode(hdr));
        PrintSense(hdr, sense);
    }
    if (hdr.masked_status != 0) {
        LOG_AS(kExec, "%s scsi status = 0x%02X\n", cmd.label, hdr.status);
    }
    if (hdr.host_status != 0) {
        LOG_AS(kExec, "%s host status = 0x%02X\n", cmd.label, hdr.host_status);
    }
    if (hdr.driver_status != 0) {
        LOG_AS(kExec, "%s driver status = 0x%02x\n", cmd.label, hdr.driver_status);
    }
}

constexpr size_t kRowBytes = 16;
constexpr int kHexColumns = 3 * static_cast<int>(kRowBytes);

// Bytes from 0x7F on are shown as they are. Tested by ExecMmcDump.ShowsHighBytesUnchanged.
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
    // With a scatter list (iovec_count not 0) dxferp does not point to the reply.
    const bool isPlain = hdr.dxferp != nullptr && hdr.iovec_count == 0;
    const std::span<const uint8_t> reply{static_cast<const uint8_t *>(hdr.dxferp),
                                         isPlain ? hdr.dxfer_len : 0};
    for (size_t at = 0; at < reply.size(); at += kRowBytes) {
        DumpRow(at, reply.subspan(at, std::min(kRowBytes, reply.size() - at)));
    }
    printf("\n");
}

// The result of a request whose check bit is set.
int ResultOfCheck(const tMmcCmd &cmd, int verbose) {
    const Sense sense = ReadSense(cmd.hdr);
    if (verbose != DEV_MMC_QUIET) {
        ExplainCheck(cmd, sense);
    }
    LOG_AS(kExec, "(%s) Fail\n", cmd.label);
    if (!sense.Empty()) {
        return DEV_MMC_CHECK_CONDITION;
    }
    // Some drives raise a check condition without sense data although the command succeeded.
    // Tested by ExecMmc.CheckConditionWithoutSenseSucceeds.
    puts("Special case(sense, asc, ascq) = (0, 0, 0).");
    fflush(stdout);
    return DEV_MMC_OK;
}

// Keeps letters, digits and one space of each run. A space at the beginning stays, one at the end
// is removed. Tested by Inquiry.CompactsTheModel.
void CompactModel(const char *pText, std::span<char> model) {
    std::fill(model.begin(), model.end(), '\0');
    size_t length = 0;
    bool afterSpace = false;
    for (; *pText != '\0'; ++pText) {
        const bool isSpace = *pText == ' ';
        if (talvek::IsDigit(*pText) || talvek::IsLetter(*pText) || (isSpace && !afterSpace)) {
            model[length++] = *pText;
            afterSpace = isSpace;
        }
    }
    if (length > 0 && model[length - 1] == ' ') {
        model[length - 1] = '\0';
    }
}

constexpr std::array<uint8_t, 6> kTestUnitReady = {0x00, 0, 0, 0, 0, 0};
constexpr int kReadyAttempts = 3;

constexpr uint8_t kInquiryLength = 96;
constexpr std::array<uint8_t, 6> kInquiry = {0x12, 0, 0, 0, kInquiryLength, 0};

// Fields of the reply (SPC-3 6.4.2): vendor in bytes 8-15, product in 16-31, revision in 32-35.
constexpr size_t kVendor = 8;
constexpr size_t kProduct = 16;
constexpr size_t kRevision = 32;
constexpr size_t kInquiryTextSize = 36;
constexpr size_t kModelLength = DEV_MODEL_SIZE - 1;

}  // namespace

int Dev_ExecMMC(tMmcCmd *pCmd, int fd, int verbose) {
    const talvek::CancelGuard guard;
    if (pCmd == nullptr) {
        LOG("Get Null ptr\n");
        return DEV_MMC_NO_VERSION;
    }
    int version = 0;
    if (ioctl(fd, SG_GET_VERSION_NUM, &version) < 0) {
        LOG_ERRNO("ioctl() error : %s\n");
        return DEV_MMC_NO_VERSION;
    }
    if (version < kOldestDriver) {
        LOG("\"%s\"(%02Xh) ver. too old(%d)\n", pCmd->label, Opcode(pCmd->hdr), version);
        return DEV_MMC_OLD_DRIVER;
    }
    if (ioctl(fd, SG_IO, &pCmd->hdr) < 0) {
        LOG_ERRNO("%s (%02Xh) SG_IO ioctl error : %s\n", pCmd->label, Opcode(pCmd->hdr));
        return DEV_MMC_IOCTL_FAILED;
    }
    if ((pCmd->hdr.info & SG_INFO_CHECK) != 0) {
        const int result = ResultOfCheck(*pCmd, verbose);
        if (result != DEV_MMC_OK) {
            return result;
        }
    }
    if (verbose != DEV_MMC_QUIET) {
        LOG("(%s) Success\n\n", pCmd->label);
        DumpReply(pCmd->hdr);
        fflush(stdout);
    }
    return DEV_MMC_OK;
}

int Dev_TestUnitReady(const char *pDevPath, int fd) {
    const talvek::CancelGuard guard;
    MmcRequest request{"TEST UNIT READY", pDevPath, kTestUnitReady, {}};
    for (int i = 0; i < kReadyAttempts; ++i) {
        if (request.Issue(fd, 0)) {
            return DEV_QUERY_OK;
        }
        talvek::PauseSecond();
    }
    return DEV_QUERY_FAILED;
}

int Dev_Inquiry(const char *pDevPath, int fd, char *pModel) {
    const talvek::CancelGuard guard;
    const auto buf = talvek::HeapBuf<uint8_t>::Zeroed(DEV_REPLY_SIZE);
    if (!buf) {
        LOG("reply_buf = NULL\n");
        return DEV_QUERY_FAILED;
    }
    MmcRequest request{"INQUIRY", pDevPath, kInquiry, {buf.get(), DEV_REPLY_SIZE}};
    if (!request.Issue(fd, kInquiryLength)) {
        return DEV_QUERY_FAILED;
    }
    char text[kInquiryTextSize + 1] = "";
    request.reply().Copy(0, text, kInquiryTextSize);
    LOG("[%s] : pModel = %p\n", talvek::PathOrEmpty(pDevPath), static_cast<void *>(pModel));
    LOG("Vendor          = %.8s\n", text + kVendor);
    LOG("Product ID      = %.16s\n", text + kProduct);
    LOG("Revision        = %.4s\n", text + kRevision);
    if (pModel != nullptr) {
        text[kVendor + kModelLength] = '\0';
        CompactModel(text + kVendor, {pModel, DEV_MODEL_SIZE});
    }
    LOG("pModel = [%s]\n", pModel != nullptr ? pModel : "(null)");
    return DEV_QUERY_OK;
}
