#ifndef TALVEK_SERVICE_INTERNAL_PACKAGE_BUFFER_H
#define TALVEK_SERVICE_INTERNAL_PACKAGE_BUFFER_H

#include <stddef.h>
#include <stdint.h>

#include "base/byte_reader.h"
#include "base/byte_writer.h"
#include "base/heap_buf.h"
#include "service/package.h"

namespace talvek {

// The memory of one package: it is received here, changed, and sent again. Fields are read and
// written as bytes, never beyond TALVEK_PKG_MAX.
class PackageBuffer {
  public:
    static constexpr uint16_t kHeaderSize = sizeof(tTalvekPkg);
    static constexpr uint16_t kResultSize = kHeaderSize + sizeof(int32_t);

    // Zeroed; empty when there is no memory. One byte longer than the largest package, so that a
    // payload of the full size can be terminated.
    PackageBuffer() : bytes_(HeapBuf<uint8_t>::Zeroed(TALVEK_PKG_MAX + 1)) {}
    explicit operator bool() const { return static_cast<bool>(bytes_); }

    [[nodiscard]] uint8_t *bytes() const { return bytes_.get(); }
    [[nodiscard]] const tTalvekPkg *header() const {
        return reinterpret_cast<const tTalvekPkg *>(bytes_.get());
    }
    [[nodiscard]] const char *payload() const {
        return reinterpret_cast<const char *>(bytes_.get() + kHeaderSize);
    }

    // `sz` of the header; unchecked in a package that was received.
    [[nodiscard]] uint16_t Size() const;
    void SetSize(uint16_t size);
    void SetType(uint16_t type);
    void SetSession(uint32_t session);

    // Turns a zeroed header into that of a single package without a payload.
    void InitHeader();
    // Copies bytes to an offset; false, with nothing copied, when they do not fit the package.
    bool Put(size_t offset, const void *pBytes, size_t count);

    // Puts a NUL after the payload.
    void TerminatePayload();

    // The status of a result; false when the package is too small for one.
    bool GetStatus(int32_t &status) const;
    // Makes the package a result.
    void SetStatus(int32_t status);

    // Sets the sequence number and computes the checksum: the last change before the package is
    // sent.
    void Seal(uint16_t sn);

  private:
    [[nodiscard]] LittleEndianWriter Writer() const { return {bytes_.get(), TALVEK_PKG_MAX}; }

    HeapBuf<uint8_t> bytes_;
};

}  // namespace talvek

#endif
