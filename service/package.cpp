// The package of the command service: checksum, header check, sending, environment strings.

#include "service/package.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/byte_reader.h"
#include "base/heap_buf.h"
#include "service/internal/module_log.h"
#include "service/internal/send_bytes.h"

namespace talvek {
namespace {

constexpr size_t kChecksummed = offsetof(tTalvekPkg, chksum);

// The header with its fields of a few bits taken apart.
struct Header {
    explicit Header(const tTalvekPkg &pkg)
        : ver(pkg.ver_fragement & 0x7F),
          fragement(pkg.ver_fragement >> 7),
          count(pkg.pkg_cnt_idx & 0x0F),
          index(pkg.pkg_cnt_idx >> 4) {}

    [[nodiscard]] bool IsGood() const {
        const bool single = fragement == 0 && count == 1;
        const bool fragment = fragement == 1 && count >= 2;
        return ver == TALVEK_PKG_VERSION && (single || fragment) && index <= count;
    }

    int ver;
    int fragement;
    int count;
    int index;
};

void DumpHeader(const Header &header, const tTalvekPkg &pkg, uint16_t computed) {
    LOG_PLAIN("Fail to check tTalvekPkg header:\n=========================\n");
    LOG_PLAIN("(ver, fragement) = (%d, %d)\n", header.ver, header.fragement);
    LOG_PLAIN("(pkg_cnt, pkg_idx) = (%d, %d)\n", header.count, header.index);
    LOG_PLAIN("(session, sn) = (0x%08X, 0x%04X)\n", static_cast<unsigned>(pkg.session),
              unsigned{pkg.sn});
    LOG_PLAIN("(chksum, type, sz) = (0x%04X/0x%04X, %d, %d)\n", unsigned{pkg.chksum},
              unsigned{computed}, int{pkg.type}, int{pkg.sz});
    LOG_PLAIN("========================\n");
}

// Only a socket can be told not to raise SIGPIPE; another kind of descriptor is written as it is.
ssize_t SendSome(int fd, const void *pBytes, size_t size) {
    const ssize_t count = send(fd, pBytes, size, MSG_NOSIGNAL);
    return count == -1 && errno == ENOTSOCK ? write(fd, pBytes, size) : count;
}

}  // namespace

Sent SendBytes(int fd, const void *pBytes, size_t size) {
    const char *pText = static_cast<const char *>(pBytes);
    Sent sent{0, 0};
    while (sent.count < size) {
        sent.last = SendSome(fd, pText + sent.count, size - sent.count);
        if (sent.last <= 0) {
            break;
        }
        sent.count += static_cast<size_t>(sent.last);
    }
    return sent;
}

}  // namespace talvek

uint16_t TALVEK_CalcPkgChecksum(const tTalvekPkg *pPkg) {
    talvek::LittleEndianReader header{pPkg, talvek::kChecksummed};
    uint16_t sum = 0;
    for (size_t at = 0; at < talvek::kChecksummed; at += sizeof sum) {
        sum = static_cast<uint16_t>(sum ^ header.U16(at));
    }
    return sum;
}

int TALVEK_CheckPkgHeader(const tTalvekPkg *pPkg, uint32_t received) {
    if (pPkg == nullptr || received < sizeof *pPkg) {
        return 0;
    }
    const talvek::Header header{*pPkg};
    const uint16_t computed = TALVEK_CalcPkgChecksum(pPkg);
    if (!header.IsGood() || computed != pPkg->chksum) {
        talvek::DumpHeader(header, *pPkg, computed);
        return 0;
    }
    return pPkg->type;
}

int TALVEK_SendPkg(const tTalvekClient *pClient, const tTalvekPkg *pPkg, uint32_t size) {
    if (pClient == nullptr || pPkg == nullptr) {
        return -1;
    }
    return talvek::SendBytes(pClient->fd, pPkg, size).count == size ? 0 : -1;
}

void TALVEK_SetEnvFromPkg(const char *pPayload, uint32_t length) {
    if (pPayload == nullptr || length == 0) {
        return;
    }
    // A copy with one NUL more: the last string may lack its own, and the payload is echoed to the
    // client as it came.
    const auto copy = talvek::HeapBuf<char>::Zeroed(size_t{length} + 1);
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
