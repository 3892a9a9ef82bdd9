// Identity and health of disks of the kernel's IDE driver.

#include "dev/ide.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "base/cancel_guard.h"
#include "base/characters.h"
#include "base/heap_buf.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "common/hex_text.h"
#include "dev/internal/module_log.h"
#include "dev/mount_table.h"

namespace {

// Data that the driver publishes as pairs of hexadecimal digits. A word has its high byte first.
class HexDump {
  public:
    explicit HexDump(int fd) : text_(COM_ReadHexDataInStrFormat(fd, &length_)) {}

    explicit operator bool() const { return static_cast<bool>(text_); }
    [[nodiscard]] int length() const { return length_; }  // characters
    [[nodiscard]] int pairs() const { return length_ / 2; }

    // The byte of a pair below pairs(). A character that is no hexadecimal digit ends the number.
    [[nodiscard]] uint8_t At(int pair) const {
        char digits[3];
        snprintf(digits, sizeof digits, "%.*s", 2, text_.get() + ptrdiff_t{pair} * 2);
        return static_cast<uint8_t>(strtoul(digits, nullptr, 16));
    }

  private:
    int length_ = 0;
    talvek::HeapBuf<char> text_;
};

// A text field of the identity. A word has two pairs.
struct IdentityField {
    int firstPair;
    int size;
};

constexpr IdentityField kSerial{10 * 2, DEV_IDE_SERIAL_SIZE - 1};
constexpr IdentityField kFirmware{23 * 2, DEV_IDE_FIRMWARE_SIZE - 1};
constexpr IdentityField kModel{27 * 2, DEV_IDE_MODEL_SIZE - 1};
constexpr int kIdentityPairs = kModel.firstPair + kModel.size;
static_assert(kIdentityPairs == 94);

// SMART READ DATA: a revision word, then entries of 12 bytes with the id first and the first raw
// byte sixth. The text has the high byte of each word first: the id of the first entry (byte 2) is
// pair 3, its first raw byte (byte 7) is pair 6.
constexpr int kFirstIdPair = 3;
constexpr int kEntryPairs = 12;
constexpr int kRawAfterId = 3;
constexpr int kMinSmartLength = 30;  // characters

// /proc/ide/<name>/<file>
class IdePath {
  public:
    IdePath(const char *pDevPath, const char *pFile) {
        snprintf(text_, sizeof text_, "/proc/ide/%s/%s", talvek::LastComponent(pDevPath), pFile);
    }
    [[nodiscard]] const char *get() const { return text_; }
    [[nodiscard]] int Open() const { return talvek::OpenPath(text_, O_RDONLY); }

  private:
    char text_[300];
};

// The length of a name without the number at its end.
size_t LengthWithoutNumber(const char *pName) {
    size_t length = strlen(pName);
    while (length > 0 && talvek::IsDigit(pName[length - 1])) {
        --length;
    }
    return length;
}

void CopyField(char *pDst, const HexDump &dump, const IdentityField &field) {
    if (pDst == nullptr) {
        return;
    }
    for (int i = 0; i < field.size; ++i) {
        pDst[i] = static_cast<char>(dump.At(field.firstPair + i));
    }
    pDst[field.size] = '\0';
}

}  // namespace

int Dev_GetDevIdentify(const char *pDevPath, char *pSerial, char *pFwRev, char *pModel) {
    const talvek::CancelGuard guard;
    if (pSerial == nullptr && pFwRev == nullptr && pModel == nullptr) {
        LOG("Invalid input : (pDevPath, pSN, pFwRev, pModel) = (%p, %p, %p, %p)\n",
            static_cast<const void *>(pDevPath), static_cast<void *>(pSerial),
            static_cast<void *>(pFwRev), static_cast<void *>(pModel));
        return -1;
    }
    if (pDevPath == nullptr) {
        return -1;
    }
    const talvek::UniqueFd fd{IdePath{pDevPath, "identify"}.Open()};
    if (!fd) {
        return -1;
    }
    const HexDump dump{fd.get()};
    if (!dump) {
        return -1;
    }
    if (dump.pairs() < kIdentityPairs) {
        LOG("count error : (count, size, limit) = (%d, %d, %d)\n", dump.pairs(), dump.length(),
            kIdentityPairs);
        return -1;
    }
    CopyField(pSerial, dump, kSerial);
    CopyField(pFwRev, dump, kFirmware);
    CopyField(pModel, dump, kModel);
    return 0;
}

int Dev_GetIDViaMount(const char *pMountPoint, char *pSerial, char *pFwRev, char *pModel) {
    const talvek::CancelGuard guard;
    if (pMountPoint == nullptr || (pSerial == nullptr && pFwRev == nullptr && pModel == nullptr)) {
        LOG("(%p, %p) : Null ptr\n", static_cast<const void *>(pMountPoint),
            static_cast<void *>(pSerial));
        return -1;
    }
    char device[DEV_MOUNT_TEXT_SIZE];
    if (Dev_GetDevViaMount(device, pMountPoint) != 0) {
        return -1;
    }
    if (Dev_GetDevIdentify(device, pSerial, pFwRev, pModel) == 0) {
        return 0;
    }
    // The driver publishes disks, not partitions.
    const size_t length = LengthWithoutNumber(device);
    if (device[length] == '\0') {
        return -1;
    }
    device[length] = '\0';
    return Dev_GetDevIdentify(device, pSerial, pFwRev, pModel);
}

int Dev_GetSmartValue(const char *pDevPath, tSmartAttr *pAttr) {
    const talvek::CancelGuard guard;
    if (pDevPath == nullptr || pAttr == nullptr) {
        LOG("Invalid Input : (pDev, pSmart) = (%s, %p)\n", talvek::Shown(pDevPath),
            static_cast<void *>(pAttr));
        return -1;
    }
    const IdePath path{pDevPath, "smart_values"};
    const talvek::UniqueFd fd{path.Open()};
    if (!fd) {
        if (errno != ENOENT) {
            LOG_ERRNO("open(%s) error : %s\n", path.get());
        }
        return -1;
    }
    const HexDump dump{fd.get()};
    if (!dump || dump.length() < kMinSmartLength) {
        return -1;
    }
    // An entry without its raw byte ends the search.
    for (int id = kFirstIdPair; id + kRawAfterId < dump.pairs(); id += kEntryPairs) {
        if (dump.At(id) == pAttr->id) {
            pAttr->value = dump.At(id + kRawAfterId);
            return 0;
        }
    }
    return -1;
}
