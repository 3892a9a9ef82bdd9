// The package of the command service: checksum, header check, sending, environment strings.

#include "service/package.h"

#include <stdlib.h>
#include <string.h>

#include "base/byte_reader.h"
#include "base/cancel_guard.h"
#include "base/heap_buf.h"
#include "service/internal/module_log.h"
#include "service/internal/send_bytes.h"

namespace {

using talvek::HeapBuf;
using talvek::LittleEndianReader;

constexpr size_t kChecksummed = offsetof(tTalvekPkg, chksum);

// The fields of a header.
struct Header {
    explicit Header(const tTalvekPkg *pPkg) {
        LittleEndianReader bytes{pPkg, sizeof *pPkg};
        const uint8_t first = bytes.U8(offsetof(tTalvekPkg, ver_fragement));
        const uint8_t second = bytes.U8(offsetof(tTalvekPkg, pkg_cnt_idx));
        ver = first & TALVEK_PKG_VER_MASK;
        fragement = (first & TALVEK_PKG_FRAGEMENT) != 0 ? 1 : 0;
        count = second & TALVEK_PKG_CNT_MASK;
        index = second >> TALVEK_PKG_IDX_SHIFT;
        session = bytes.U32(offsetof(tTalvekPkg, session));
        sn = bytes.U16(offsetof(tTalvekPkg, sn));
        type = bytes.U16(offsetof(tTalvekPkg, type));
        sz = bytes.U16(offsetof(tTalvekPkg, sz));
        chksum = bytes.U16(offsetof(tTalvekPkg, chksum));
    }

    [[nodiscard]] bool IsGood(uint16_t computed) const {
        const bool single = fragement == 0 && count == 1;
        const bool fragment = fragement == 1 && count >= 2;
        return ver == TALVEK_PKG_VERSION && (single || fragment) && index <= count &&
               chksum == computed;
    }

    int ver;
    int fragement;
    int count;
    int index;
    unsigned session;
    unsigned sn;
    int type;
    int sz;
    unsigned chksum;
};

void DumpHeader(const Header &header, unsigned computed) {
    LOG_PLAIN("Fail to check tTalvekPkg header:\n=========================\n");
    LOG_PLAIN("(ver, fragement) = (%d, %d)\n", header.ver, header.fragement);
    LOG_PLAIN("(pkg_cnt, pkg_idx) = (%d, %d)\n", header.count, header.index);
    LOG_PLAIN("(session, sn) = (0x%08X, 0x%04X)\n", header.session, header.sn);
    LOG_PLAIN("(chksum, type, sz) = (0x%04X/0x%04X, %d, %d)\n", header.chksum, computed,
              header.type, header.sz);
    LOG_PLAIN("========================\n");
}

}  // namespace

uint16_t TALVEK_CalcPkgChecksum(const tTalvekPkg *pPkg) {
    LittleEndianReader header{pPkg, kChecksummed};
    uint16_t sum = 0;
    for (size_t at = 0; at < kChecksummed; at += sizeof sum) {
        sum = static_cast<uint16_t>(sum ^ header.U16(at));
    }
    return sum;
}

int TALVEK_CheckPkgHeader(const tTalvekPkg *pPkg, uint32_t received) {
    if (pPkg == nullptr || received < sizeof *pPkg) {
        return 0;
    }
    const Header header{pPkg};
    const uint16_t computed = TALVEK_CalcPkgChecksum(pPkg);
    if (!header.IsGood(computed)) {
        DumpHeader(header, computed);
        return 0;
    }
    return header.type;
}

int TALVEK_SendPkg(const tTalvekClient *pClient, const tTalvekPkg *pPkg, uint32_t size) {
    const talvek::CancelGuard guard;
    if (pClient == nullptr || pPkg == nullptr) {
        return -1;
    }
    return talvek::SendBytes(pClient->fd, pPkg, size).count == size ? 0 : -1;
}

void TALVEK_SetEnvFromPkg(const char *pPayload, uint32_t length) {
    if (pPayload == nullptr || length == 0) {
        return;
    }
    // A copy with a NUL after it: the last string may lack its own, and the handler echoes the
    // payload to the client unchanged.
    const auto copy = HeapBuf<char>::Zeroed(size_t{length} + 1);
    if (!copy) {
        return;
    }
    memcpy(copy.get(), pPayload, length);
    for (size_t at = 0; at < length;) {
        char *pName = copy.get() + at;
        char *pEqual = strchr(pName, '=');
        if (pEqual == nullptr) {
            return;
        }
        at += strlen(pName) + 1;
        *pEqual = '\0';
        setenv(pName, pEqual + 1, 1);
    }
}
