// The MMC commands that identify the disc in a drive.

#include "dev/mmc_commands.h"

#include <stdio.h>

#include <algorithm>
#include <array>
#include <span>

#include "base/cancel_guard.h"
#include "base/heap_buf.h"
#include "dev/internal/mmc_request.h"
#include "dev/internal/module_log.h"
#include "dev/internal/used_kb.h"

namespace {

using talvek::BigEndianReader;
using talvek::MmcRequest;
using talvek::ReplyBuf;
using talvek::WholeLength;

using Cdb10 = std::array<uint8_t, 10>;
using Cdb12 = std::array<uint8_t, 12>;

// The 8 bytes are the feature header, which has the current profile in bytes 6-7. RT = 01b (current
// features), starting feature 0.
constexpr uint32_t kConfigurationLength = 8;
constexpr Cdb10 kGetConfiguration = {0x46, 0x01, 0, 0, 0, 0, 0, 0, kConfigurationLength, 0};

constexpr uint32_t kDiscInfoLength = 34;
constexpr uint32_t kDiscInfoMaxLength = 255;
constexpr Cdb10 kReadDiscInfo = {0x51, 0, 0, 0, 0, 0, 0, 0, kDiscInfoLength, 0};

// Address type 01b: bytes 2-5 hold a track number.
constexpr uint32_t kTrackInfoLength = 36;
constexpr Cdb10 kReadTrackInfo = {0x52, 0x01, 0, 0, 0, 0x01, 0, 0, kTrackInfoLength, 0};

constexpr uint32_t kDvdStructLength = 4;
constexpr Cdb12 kReadDvdStruct = {0xAD, 0, 0, 0, 0, 0, 0, 0, 0, kDvdStructLength, 0, 0};
constexpr uint8_t kMediaTypeBd = 1;     // byte 1; 0 is DVD
constexpr uint8_t kLayerFormat = 0x10;  // byte 7

constexpr uint32_t kFormatCapacityLength = 252;
constexpr Cdb10 kReadFormatCapacity = {0x23, 0, 0, 0, 0, 0, 0, 0, kFormatCapacityLength, 0};

constexpr uint32_t kBufferCapacityLength = 12;
constexpr Cdb10 kReadBufferCapacity = {0x5C, 0, 0, 0, 0, 0, 0, 0, kBufferCapacityLength, 0};

// Lengths of the second request, read from the reply to the first.
uint32_t DiscInfoLength(BigEndianReader reply) {
    return std::min(WholeLength(reply), kDiscInfoMaxLength);
}

uint32_t LengthOrMaximum(BigEndianReader reply) {
    const uint32_t length = WholeLength(reply);
    return length >= 65534 ? MmcRequest::kMaxLength : length;
}

uint32_t CapacityListLength(BigEndianReader reply) {
    return reply.U8(3) + 4U;
}

struct Profile {
    uint16_t number;
    bool supported;
    uint32_t discClass;
    uint32_t mediaKind;
    uint32_t recordMode;
    const char *message;
};

// MMC-6, profile list. Profile 0x0011 is logged as sequential recording but has no record mode.
// BD-R and BD-RE (0x0041 to 0x0043) are not supported. Tested by GetConfiguration.LogsEveryProfile
// and GetConfiguration.RejectsEveryOtherProfile.
constexpr Profile kProfiles[] = {
    {0x0008, false, DEV_CLASS_CD, DEV_MEDIA_READ_ONLY, DEV_RECORD_NONE,
     "It's CD-ROM and CANNOT be used for export!\n"},
    {0x0009, true, DEV_CLASS_CD, DEV_MEDIA_WRITE_ONCE, DEV_RECORD_NONE,
     "It's CD-R and supported!\n"},
    {0x000A, true, DEV_CLASS_CD, DEV_MEDIA_REWRITABLE, DEV_RECORD_NONE,
     "It's CD-RW and supported!\n"},
    {0x0010, true, DEV_CLASS_DVD_ROM, DEV_MEDIA_READ_ONLY, DEV_RECORD_NONE,
     "It's DVD-ROM and supported!\n"},
    {0x0011, true, DEV_CLASS_DVD_MINUS, DEV_MEDIA_WRITE_ONCE, DEV_RECORD_NONE,
     "It's DVD-R Sequential Recording and supported!\n"},
    {0x0012, false, DEV_CLASS_DVD_RAM, DEV_MEDIA_RAM, DEV_RECORD_NONE,
     "It's DVD-RAM but NOT supported!\n"},
    {0x0013, true, DEV_CLASS_DVD_MINUS, DEV_MEDIA_REWRITABLE, DEV_RECORD_RESTRICTED_OVERWRITE,
     "It's DVD-RW Restricted Overwrite and supported!\n"},
    {0x0014, true, DEV_CLASS_DVD_MINUS, DEV_MEDIA_REWRITABLE, DEV_RECORD_SEQUENTIAL,
     "It's DVD-RW Sequential Recording and supported!\n"},
    {0x0015, true, DEV_CLASS_DVD_MINUS, DEV_MEDIA_WRITE_ONCE, DEV_RECORD_DUAL_LAYER,
     "It's DVD-R Dual Layer Sequential Recording and supported!\n"},
    {0x0016, false, DEV_CLASS_DVD_MINUS, DEV_MEDIA_WRITE_ONCE, DEV_RECORD_DUAL_LAYER_JUMP,
     "It's DVD-R Dual Layer Jump Recording but NOT supported!\n"},
    {0x001A, true, DEV_CLASS_DVD_PLUS, DEV_MEDIA_REWRITABLE, DEV_RECORD_NONE,
     "It's DVD+RW and supported!\n"},
    {0x001B, true, DEV_CLASS_DVD_PLUS, DEV_MEDIA_WRITE_ONCE, DEV_RECORD_NONE,
     "It's DVD+R and supported!\n"},
    {0x0020, false, DEV_CLASS_DDCD, DEV_MEDIA_READ_ONLY, DEV_RECORD_NONE,
     "It's DDCD-ROM and CANNOT be used for export!\n"},
    {0x0021, false, DEV_CLASS_DDCD, DEV_MEDIA_WRITE_ONCE, DEV_RECORD_NONE,
     "It's DDCD-R but NOT supported!\n"},
    {0x0022, false, DEV_CLASS_DDCD, DEV_MEDIA_REWRITABLE, DEV_RECORD_NONE,
     "It's DDCD-RW but NOT supported!\n"},
    {0x002A, false, DEV_CLASS_DVD_PLUS, DEV_MEDIA_REWRITABLE, DEV_RECORD_DUAL_LAYER,
     "It's DVD+RW Dual Layer but NOT supported!\n"},
    {0x002B, true, DEV_CLASS_DVD_PLUS, DEV_MEDIA_WRITE_ONCE, DEV_RECORD_DUAL_LAYER,
     "It's DVD+R Dual Layer and supported!\n"},
    {0x0040, true, DEV_CLASS_BD, DEV_MEDIA_READ_ONLY, DEV_RECORD_NONE,
     "It's BD-ROM and supported!\n"},
};

const Profile *FindProfile(uint16_t number) {
    for (const Profile &profile : kProfiles) {
        if (profile.number == number) {
            return &profile;
        }
    }
    return nullptr;
}

constexpr const char *kStatusMessages[] = {
    "It is an empty disc\n",
    "It is an incomplete disc\n",
    "It is a finalized disc\n",
    "The disc is only random access writable\n",
};

void LogDiscKind(const tDiscInfo &info, bool erasable) {
    if (info.discClass == DEV_CLASS_BD) {
        LOG_AS("Dev_ReadDiscInfo", "This disc is BD-%s\n", erasable ? "RE" : "R");
        return;
    }
    LOG_AS("Dev_ReadDiscInfo", "This disc is DVD%c%s %s\n",
           info.discClass == DEV_CLASS_DVD_MINUS ? '-' : '+', erasable ? "RW" : "R",
           info.recordMode >= DEV_RECORD_DUAL_LAYER ? "DL" : " ");
}

bool IsDvdMinusOrPlus(const tDiscInfo &info) {
    return info.discClass == DEV_CLASS_DVD_MINUS || info.discClass == DEV_CLASS_DVD_PLUS;
}

bool IsWritableDvdMinus(const tDiscInfo &info) {
    return info.discClass == DEV_CLASS_DVD_MINUS &&
           (info.mediaKind == DEV_MEDIA_WRITE_ONCE || info.mediaKind == DEV_MEDIA_REWRITABLE);
}

// CD, DVD-R/RW, DVD+R/RW and BD: the classes whose disc status is read.
bool HasDiscStatus(const tDiscInfo &info) {
    return info.discClass == DEV_CLASS_CD || IsDvdMinusOrPlus(info) ||
           info.discClass == DEV_CLASS_BD;
}

void ParseDiscInfo(BigEndianReader reply, tDiscInfo &info) {
    if (!HasDiscStatus(info)) {
        return;
    }
    if (info.discClass == DEV_CLASS_CD) {
        info.sessions = reply.U8(4) + 256U * reply.U8(9);
        LOG_AS("Dev_ReadDiscInfo", "Total session number = %d.\n", static_cast<int>(info.sessions));
    } else {
        LogDiscKind(info, (reply.U8(2) & 0x10) != 0);
        info.lastTrack = reply.U8(6) + 256U * reply.U8(11);
        LOG_AS("Dev_ReadDiscInfo", "Last Track in Last Session is %u\n", info.lastTrack);
    }
    info.discStatus = reply.U8(2) & 0x03;
    LOG_AS("Dev_ReadDiscInfo", "%s", kStatusMessages[info.discStatus]);
}

void ParseTrackInfo(BigEndianReader reply, tDiscInfo &info) {
    printf("Read Track Information [#%d].\n", static_cast<int>(info.lastTrack));
    printf("Track Start Address   = %u * 2KB\n", reply.U32(8));
    if ((reply.U8(7) & 0x01) != 0) {
        printf("Next Writable Address = %u * 2KB\n", reply.U32(12));
    }
    info.freeBlocks = reply.U32(16);
    info.trackSize = reply.U32(24);
    printf("FreeBlocks            = %u * 2KB\n", info.freeBlocks);
    printf("TrackSize             = %u * 2KB\n", info.trackSize);
    fflush(stdout);
}

// The part of totalKB that is not free; 0 when the drive reports more free blocks than the nominal
// capacity has.
uint64_t NotFreeKB(const tDiscInfo &info) {
    const uint64_t freeKB = 2ULL * info.freeBlocks;
    return info.totalKB > freeKB ? info.totalKB - freeKB : 0;
}

struct NominalKB {
    uint64_t twoLayers;
    uint64_t oneLayer80mm;
    uint64_t oneLayer120mm;
};
constexpr NominalKB kDvdMinusKB = {8343424, 1425782, 4595776};
constexpr NominalKB kDvdPlusKB = {8347648, 1429088, 4590208};

// The layer descriptor begins at byte 4 of the reply (MMC-6, READ DISC STRUCTURE, physical format
// information).
void ParseLayerDescriptor(BigEndianReader reply, tDiscInfo &info) {
    LOG_AS("Dev_ReadDvdStruct", "Start Physical Sector Number of Data Area = %06Xh \n",
           reply.U24(9));
    LOG_AS("Dev_ReadDvdStruct", "End Physical Sector Number of Data Area = %06Xh \n",
           reply.U24(13));
    LOG_AS("Dev_ReadDvdStruct", "End Physical Sector Number Layer Zero = %06Xh \n", reply.U24(17));
    if (!IsDvdMinusOrPlus(info)) {
        return;
    }
    const NominalKB &nominal = info.discClass == DEV_CLASS_DVD_MINUS ? kDvdMinusKB : kDvdPlusKB;
    const bool twoLayers = ((reply.U8(6) >> 5) & 0x03) == 1;
    const bool is80mm = reply.U8(5) >> 4 == 1;
    if (twoLayers) {
        info.totalKB = nominal.twoLayers;
    } else {
        info.totalKB = is80mm ? nominal.oneLayer80mm : nominal.oneLayer120mm;
    }
}

// Prints rows of sixteen bytes, each followed by its characters. A shorter last row has no
// characters.
void PrintCapacityList(std::span<const uint8_t> list) {
    char text[16 + 1] = "";
    size_t column = 0;
    for (const uint8_t byte : list) {
        printf("%02x ", byte);
        text[column++] = byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
        if (column % 8 == 0) {
            printf(" ");
        }
        if (column == 16) {
            printf("|%-.16s|\n", text);
            column = 0;
        }
    }
    if (column != 0) {
        printf("\n");
    }
}

constexpr const char *kCapacityTypes[] = {
    "Reserved descriptor type",
    "Unformatted Media",
    "Formatted disc",
    "No Media Present/ Unknown capacity media",
};

constexpr uint8_t kFullFormat = 0x00;
constexpr uint8_t kDvdMinusRwFullFormat = 0x10;
constexpr uint8_t kDvdPlusRwFullFormat = 0x26;

void ApplyFormattable(BigEndianReader reply, size_t at, uint32_t currentBlocks, tDiscInfo &info) {
    const uint32_t blocks = reply.U32(at);
    const uint8_t formatType = reply.U8(at + 4) >> 2;
    if (formatType == kFullFormat && info.discClass == DEV_CLASS_BD) {
        info.totalKB = 2ULL * currentBlocks;
    } else if (formatType == kFullFormat) {
        // The product has 32 bits and wraps for media over 4 GiB. DVD-RW and DVD+RW have a
        // descriptor of their own after this one. Tested by
        // ReadFormatCapacity.WrapsTheFullFormatProduct.
        const uint32_t bytes = blocks * reply.U24(at + 5);
        info.totalKB = bytes >> 10;
    } else if (info.mediaKind == DEV_MEDIA_REWRITABLE &&
               ((formatType == kDvdPlusRwFullFormat && info.discClass == DEV_CLASS_DVD_PLUS) ||
                (formatType == kDvdMinusRwFullFormat && info.discClass == DEV_CLASS_DVD_MINUS))) {
        info.totalKB = 2ULL * blocks;
    }
}

// Byte 3 is the length of the capacity list, bytes 4-11 are the current or maximum capacity. The
// formattable capacities begin at byte 12 (MMC-6, READ FORMAT CAPACITIES).
void ParseFormatCapacity(BigEndianReader reply, tDiscInfo &info) {
    const uint8_t listLength = reply.U8(3);
    uint32_t currentBlocks = 0;
    if (listLength > 15) {
        currentBlocks = reply.U32(4);
        puts(kCapacityTypes[reply.U8(8) & 0x03]);
        fflush(stdout);
    } else if (listLength < 9) {
        return;
    }
    const size_t count = (listLength - 9U) / 8 + 1;
    for (size_t i = 0; i < count && reply.Has(12 + 8 * i, 1); ++i) {
        ApplyFormattable(reply, 12 + 8 * i, currentBlocks, info);
    }
}

}  // namespace

int Dev_GetConfiguration(const char *pDevPath, int fd, tDiscInfo *pInfo) {
    const talvek::CancelGuard guard;
    if (pInfo == nullptr) {
        LOG("Get Null ptr\n");
        return DEV_QUERY_FAILED;
    }
    const auto buf = talvek::HeapBuf<uint8_t>::Zeroed(DEV_REPLY_SIZE);
    if (!buf) {
        LOG("reply_buf = NULL\n");
        return DEV_QUERY_FAILED;
    }
    pInfo->discClass = DEV_CLASS_CD;
    pInfo->mediaKind = DEV_MEDIA_READ_ONLY;
    pInfo->recordMode = DEV_RECORD_NONE;
    MmcRequest request{
        "GET CONFIGURATION", pDevPath, kGetConfiguration, {buf.get(), DEV_REPLY_SIZE}};
    if (!request.Issue(fd, kConfigurationLength, DEV_MMC_VERBOSE)) {
        return DEV_QUERY_FAILED;
    }
    const uint16_t number = request.reply().U16(6);
    const Profile *pProfile = FindProfile(number);
    if (pProfile == nullptr) {
        LOG("Disc type(0x%04X) unreconfized and unsupported!\n", number);
        return DEV_QUERY_FAILED;
    }
    LOG("%s", pProfile->message);
    pInfo->discClass = pProfile->discClass;
    pInfo->mediaKind = pProfile->mediaKind;
    pInfo->recordMode = pProfile->recordMode;
    return pProfile->supported ? DEV_QUERY_OK : DEV_QUERY_FAILED;
}

int Dev_ReadDiscInfo(const char *pDevPath, int fd, tDiscInfo *pInfo) {
    const talvek::CancelGuard guard;
    if (pInfo == nullptr) {
        LOG("Get Null ptr\n");
        return DEV_QUERY_FAILED;
    }
    ReplyBuf buf;
    MmcRequest request{"READ DISC INFORMATION", pDevPath, kReadDiscInfo, buf};
    if (!request.IssueTwice(fd, kDiscInfoLength, DiscInfoLength)) {
        return DEV_QUERY_FAILED;
    }
    ParseDiscInfo(request.reply(), *pInfo);
    return DEV_QUERY_OK;
}

int Dev_ReadTrackInfo(const char *pDevPath, int fd, tDiscInfo *pInfo) {
    const talvek::CancelGuard guard;
    if (pInfo == nullptr) {
        LOG("Get Null ptr\n");
        return DEV_QUERY_FAILED;
    }
    ReplyBuf buf;
    MmcRequest request{"READ TRACK INFORMATION", pDevPath, kReadTrackInfo, buf};
    request.PatchU32(2, pInfo->lastTrack);
    if (!request.IssueTwice(fd, kTrackInfoLength, LengthOrMaximum)) {
        return DEV_QUERY_FAILED;
    }
    ParseTrackInfo(request.reply(), *pInfo);
    if (HasDiscStatus(*pInfo)) {
        pInfo->usedKB = talvek::UsedKB(*pInfo, NotFreeKB(*pInfo));
    }
    return DEV_QUERY_OK;
}

int Dev_ReadDvdStruct(const char *pDevPath, int fd, tDiscInfo *pInfo) {
    const talvek::CancelGuard guard;
    if (pInfo == nullptr) {
        LOG("Get Null ptr\n");
        return DEV_QUERY_FAILED;
    }
    ReplyBuf buf;
    MmcRequest request{"READ DVD STRUCTURE", pDevPath, kReadDvdStruct, buf};
    if (IsWritableDvdMinus(*pInfo)) {
        request.Patch(7, kLayerFormat);
    } else if (pInfo->discClass == DEV_CLASS_BD) {
        request.Patch(1, kMediaTypeBd);
        request.Patch(7, kLayerFormat);
    }
    if (!request.IssueTwice(fd, kDvdStructLength, LengthOrMaximum)) {
        return DEV_QUERY_FAILED;
    }
    ParseLayerDescriptor(request.reply(), *pInfo);
    return DEV_QUERY_OK;
}

int Dev_ReadFormatCapacity(const char *pDevPath, int fd, tDiscInfo *pInfo) {
    const talvek::CancelGuard guard;
    if (pInfo == nullptr) {
        LOG("Get Null ptr\n");
        return DEV_QUERY_FAILED;
    }
    ReplyBuf buf;
    MmcRequest request{"READ FORMAT CAPACITY", pDevPath, kReadFormatCapacity, buf};
    if (!request.IssueTwice(fd, kFormatCapacityLength, CapacityListLength)) {
        return DEV_QUERY_FAILED;
    }
    BigEndianReader reply = request.reply();
    const uint8_t listLength = reply.U8(3);
    LOG("(%s) : reply_buf_len = %d\n", talvek::PathOrEmpty(pDevPath), listLength);
    PrintCapacityList(reply.Sub(4, listLength));
    fflush(stdout);
    ParseFormatCapacity(reply, *pInfo);
    return DEV_QUERY_OK;
}

int Dev_ReadBufferCapacity(const char *pDevPath, int fd) {
    const talvek::CancelGuard guard;
    ReplyBuf buf;
    MmcRequest request{"READ BUFFER CAPACITY", pDevPath, kReadBufferCapacity, buf};
    if (!request.Issue(fd, kBufferCapacityLength)) {
        return DEV_QUERY_FAILED;
    }
    constexpr uint32_t kMiB = 0x100000;
    const uint32_t size = request.reply().U32(4);
    if (size > kMiB) {
        LOG("buffer_size = %d MB\n", static_cast<int>((size - 1) / kMiB + 1));
    } else {
        LOG("buffer_size = ???\n");
    }
    return DEV_QUERY_OK;
}
