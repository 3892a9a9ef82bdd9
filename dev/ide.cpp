// Identity and health of disks under the kernel's IDE driver.

#include "dev/ide.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "base/heap_buf.h"
#include "base/unique_fd.h"
#include "common/hex_text.h"
#include "dev/internal/module_log.h"
#include "dev/mount_table.h"

namespace talvek {
namespace {

// A text of pairs of hexadecimal digits, in the order of the text: the high byte of each word
// first.
class PairText {
  public:
    explicit PairText(int fd) : text_(COM_ReadHexDataInStrFormat(fd, &length_)) {}

    explicit operator bool() const { return static_cast<bool>(text_); }
    [[nodiscard]] int length() const { return length_; }
    [[nodiscard]] int pairs() const { return length_ / 2; }
    [[nodiscard]] bool Has(int pair) const { return pair < pairs(); }

    // The byte of a pair; digits that are none end it.
    [[nodiscard]] uint8_t At(int pair) const {
        char digits[3];
        snprintf(digits, sizeof digits, "%.*s", 2, text_.get() + ptrdiff_t{pair} * 2);
        return static_cast<uint8_t>(strtoul(digits, nullptr, 16));
    }

  private:
    int length_ = 0;
    HeapBuf<char> text_;
};

// A text field of the identity, by the pair that it begins with (two pairs a word).
struct IdentityField {
    int firstPair;
    int size;
};

constexpr IdentityField kSerial{10 * 2, DEV_IDE_SERIAL_SIZE - 1};
constexpr IdentityField kFirmware{23 * 2, DEV_IDE_FIRMWARE_SIZE - 1};
constexpr IdentityField kModel{27 * 2, DEV_IDE_MODEL_SIZE - 1};
constexpr int kIdentityPairs = kModel.firstPair + kModel.size;
static_assert(kIdentityPairs == 94);

// SMART READ DATA: a revision word, then entries of 12 bytes. As the text has its bytes word by
// word with the high one first, an entry's id is the fourth byte and its first raw byte three
// behind it.
constexpr int kFirstIdPair = 3;
constexpr int kEntryPairs = 12;
constexpr int kRawBehindId = 3;
constexpr int kShortestSmartText = 30;

const char *LastComponent(const char *pPath) {
    const char *pSlash = strrchr(pPath, '/');
    return pSlash != nullptr ? pSlash + 1 : pPath;
}

// /proc/ide/<name>/<file>
class IdePath {
  public:
    IdePath(const char *pDevPath, const char *pFile) {
        snprintf(text_, sizeof text_, "/proc/ide/%s/%s", LastComponent(pDevPath), pFile);
    }
    [[nodiscard]] const char *get() const { return text_; }
    [[nodiscard]] UniqueFd Open() const { return UniqueFd{open(text_, O_RDONLY | O_CLOEXEC)}; }

  private:
    char text_[300];
};

// The length of a name up to the number that it ends in.
size_t LengthWithoutNumber(const char *pName) {
    size_t length = strlen(pName);
    while (length > 0 && pName[length - 1] >= '0' && pName[length - 1] <= '9') {
        --length;
    }
    return length;
}

void CopyField(char *pDst, const PairText &text, const IdentityField &field) {
    if (pDst == nullptr) {
        return;
    }
    for (int i = 0; i < field.size; ++i) {
        pDst[i] = static_cast<char>(text.At(field.firstPair + i));
    }
    pDst[field.size] = '\0';
}

}  // namespace
}  // namespace talvek

int Dev_GetDevIdentify(const char *pDevPath, char *pSerial, char *pFwRev, char *pModel) {
    if (pSerial == nullptr && pFwRev == nullptr && pModel == nullptr) {
        LOG("Invalid input : (pDevPath, pSN, pFwRev, pModel) = (%p, %p, %p, %p)\n",
            static_cast<const void *>(pDevPath), static_cast<void *>(pSerial),
            static_cast<void *>(pFwRev), static_cast<void *>(pModel));
        return -1;
    }
    if (pDevPath == nullptr) {
        return -1;
    }
    const talvek::UniqueFd fd = talvek::IdePath{pDevPath, "identify"}.Open();
    if (!fd) {
        return -1;
    }
    const talvek::PairText text{fd.get()};
    if (!text) {
        return -1;
    }
    if (text.pairs() < talvek::kIdentityPairs) {
        LOG("count error : (count, size, limit) = (%d, %d, %d)\n", text.pairs(), text.length(),
            talvek::kIdentityPairs);
        return -1;
    }
    talvek::CopyField(pSerial, text, talvek::kSerial);
    talvek::CopyField(pFwRev, text, talvek::kFirmware);
    talvek::CopyField(pModel, text, talvek::kModel);
    return 0;
}

int Dev_GetIDViaMount(const char *pMountPoint, char *pSerial, char *pFwRev, char *pModel) {
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
    // The driver has an entry a disk, none a partition.
    const size_t length = talvek::LengthWithoutNumber(device);
    if (device[length] == '\0') {
        return -1;
    }
    device[length] = '\0';
    return Dev_GetDevIdentify(device, pSerial, pFwRev, pModel);
}

int Dev_GetSmartValue(const char *pDevPath, tSmartAttr *pAttr) {
    if (pDevPath == nullptr || pAttr == nullptr) {
        LOG("Invalid Input : (pDev, pSmart) = (%s, %p)\n",
            pDevPath != nullptr ? pDevPath : "(null)", static_cast<void *>(pAttr));
        return -1;
    }
    const talvek::IdePath path{pDevPath, "smart_values"};
    const talvek::UniqueFd fd = path.Open();
    if (!fd) {
        if (errno != ENOENT) {
            LOG_ERRNO("open(%s) error : %s\n", path.get());
        }
        return -1;
    }
    const talvek::PairText text{fd.get()};
    if (!text || text.length() < talvek::kShortestSmartText) {
        return -1;
    }
    // An entry that the text ends inside has no value to give.
    for (int id = talvek::kFirstIdPair; text.Has(id + talvek::kRawBehindId);
         id += talvek::kEntryPairs) {
        if (text.At(id) == pAttr->id) {
            pAttr->value = text.At(id + talvek::kRawBehindId);
            return 0;
        }
    }
    return -1;
}
