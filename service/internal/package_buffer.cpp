#include "service/internal/package_buffer.h"

#include <algorithm>

namespace talvek {

uint16_t PackageBuffer::Size() const {
    return LittleEndianReader{bytes_.get(), kHeaderSize}.U16(offsetof(tTalvekPkg, sz));
}

void PackageBuffer::SetSize(uint16_t size) {
    Writer().U16(offsetof(tTalvekPkg, sz), size);
}

void PackageBuffer::SetType(uint16_t type) {
    Writer().U16(offsetof(tTalvekPkg, type), type);
}

void PackageBuffer::SetSession(uint32_t session) {
    Writer().U32(offsetof(tTalvekPkg, session), session);
}

void PackageBuffer::InitHeader() {
    Writer().U8(offsetof(tTalvekPkg, ver_fragement), TALVEK_PKG_VERSION);
    Writer().U8(offsetof(tTalvekPkg, pkg_cnt_idx), TALVEK_PKG_SINGLE);
    SetSize(kHeaderSize);
}

bool PackageBuffer::Put(size_t offset, const void *pBytes, size_t count) {
    LittleEndianWriter writer = Writer();
    writer.Copy(offset, pBytes, count);
    return !writer.failed();
}

void PackageBuffer::TerminatePayload() {
    const size_t end = std::clamp<size_t>(Size(), kHeaderSize, TALVEK_PKG_MAX);
    bytes_[end] = '\0';
}

bool PackageBuffer::GetStatus(int32_t &status) const {
    LittleEndianReader package{bytes_.get(), std::min<size_t>(Size(), TALVEK_PKG_MAX)};
    status = static_cast<int32_t>(package.U32(kHeaderSize));
    return !package.failed();
}

void PackageBuffer::SetStatus(int32_t status) {
    SetType(TALVEK_PKG_RESULT);
    SetSize(kResultSize);
    Writer().U32(kHeaderSize, static_cast<uint32_t>(status));
}

void PackageBuffer::Seal(uint16_t sn) {
    Writer().U16(offsetof(tTalvekPkg, sn), sn);
    Writer().U16(offsetof(tTalvekPkg, chksum), TALVEK_CalcPkgChecksum(header()));
}

}  // namespace talvek
