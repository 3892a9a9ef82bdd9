// The MMC commands that tell what disc is in a drive.

#include "dev/mmc_commands.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <span>

#include "base/heap_buf.h"
#include "dev/internal/mmc_request.h"
#include "dev/internal/module_log.h"

namespace talvek {
namespace {

using Cdb10 = std::array<uint8_t, 10>;
using Cdb12 = std::array<uint8_t, 12>;

// Only the header and the first words of the current feature: RT = 01b, starting feature 0.
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

constexpr uint32_t kFormatCapacityLength = 252;
constexpr Cdb10 kReadFormatCapacity = {0x23, 0, 0, 0, 0, 0, 0, 0, kFormatCapacityLength, 0};

constexpr uint32_t kBufferCapacityLength = 12;
constexpr Cdb10 kReadBufferCapacity = {0x5C, 0, 0, 0, 0, 0, 0, 0, kBufferCapacityLength, 0};

// Every two-byte data length counts the bytes behind itself.
uint32_t WholeLength(BigEndianReader reply) {
    return reply.U16(0) + 2U;
}

uint32_t WholeLengthToTheFull(BigEndianReader reply) {
    const uint32_t length = WholeLength(reply);
    return length >= 65534 ? MmcRequest::kMaxLength : length;
}

struct Profile {
    uint16_t number;
    bool supported;
    uint32_t discClass;
    uint32_t mediaKind;
    uint32_t recordMode;
    const char *message;
};

// MMC-6, profile list. 0x0011 is told as sequential recording and gets no record mode, and blu-ray
// discs that can be written are not among the profiles: the unit does not write to them. Held by
// GetConfiguration.TellsEveryProfile.
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
    const auto *const found =
        std::find_if(std::begin(kProfiles), std::end(kProfiles),
                     [number](const Profile &profile) { return profile.number == number; });
    return found != std::end(kProfiles) ? found : nullptr;
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

bool IsDvdWritable(const tDiscInfo &info) {
    return info.discClass == DEV_CLASS_DVD_MINUS || info.discClass == DEV_CLASS_DVD_PLUS;
}

// CD, DVD-R/RW, DVD+R/RW and BD: the classes that the unit follows from empty to finalized.
bool HasDiscStatus(const tDiscInfo &info) {
    return info.discClass == DEV_CLASS_CD || IsDvdWritable(info) || info.discClass == DEV_CLASS_BD;
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

// The nominal capacity of a disc may be a little less than its free blocks say.
uint64_t UsedKB(const tDiscInfo &info) {
    const uint64_t freeKB = 2ULL * info.freeBlocks;
    switch (info.discStatus) {
        case DEV_DISC_INCOMPLETE:
            return info.totalKB > freeKB ? info.totalKB - freeKB : 0;
        case DEV_DISC_FINALIZED:
            return info.totalKB;
        default:
            return 0;
    }
}

struct NominalKB {
    uint64_t twoLayers;
    uint64_t oneLayer80mm;
    uint64_t oneLayer120mm;
};
constexpr NominalKB kDvdMinusKB = {8343424, 1425782, 4595776};
constexpr NominalKB kDvdPlusKB = {8347648, 1429088, 4590208};

// The layer descriptor stands from byte 4 of the reply on (MMC-6, READ DISC STRUCTURE, physical
// format information).
void ParseLayerDescriptor(BigEndianReader reply, tDiscInfo &info) {
    LOG_AS("Dev_ReadDvdStruct", "Start Physical Sector Number of Data Area = %06Xh \n",
           reply.U24(9));
    LOG_AS("Dev_ReadDvdStruct", "End Physical Sector Number of Data Area = %06Xh \n",
           reply.U24(13));
    LOG_AS("Dev_ReadDvdStruct", "End Physical Sector Number Layer Zero = %06Xh \n", reply.U24(17));
    if (!IsDvdWritable(info)) {
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

// Rows of sixteen: bytes, then characters. A last shorter row has no characters.
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
        // The product has 32 bits and wraps for media over 4 GiB; DVD-RW and DVD+RW bring a
        // descriptor of their own behind it. Held by ReadFormatCapacity.WrapsTheFullFormatProduct.
        const uint32_t bytes = blocks * reply.U24(at + 5);
        info.totalKB = bytes >> 10;
    } else if (info.mediaKind == DEV_MEDIA_REWRITABLE &&
               ((formatType == kDvdPlusRwFullFormat && info.discClass == DEV_CLASS_DVD_PLUS) ||
                (formatType == kDvdMinusRwFullFormat && info.discClass == DEV_CLASS_DVD_MINUS))) {
        info.totalKB = 2ULL * blocks;
    }
}

// Byte 3 is the length of the capacity list, bytes 4-11 the current or maximum capacity, and from
// byte 12 on stand the formattable capacities (MMC-6, READ FORMAT CAPACITIES).
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
}  // namespace talvek

int Dev_GetConfiguration(const char *devPath, int fd, tDiscInfo *info) {
    using namespace talvek;
    if (info == nullptr) {
        LOG("Get Null ptr\n");
        return 0;
    }
    const HeapBuf<uint8_t> buf{static_cast<uint8_t *>(malloc(DEV_REPLY_SIZE))};
    if (!buf) {
        LOG("reply_buf = NULL\n");
        return 0;
    }
    info->discClass = DEV_CLASS_CD;
    info->mediaKind = DEV_MEDIA_READ_ONLY;
    info->recordMode = DEV_RECORD_NONE;
    MmcRequest request{
        "GET CONFIGURATION", devPath, kGetConfiguration, {buf.get(), DEV_REPLY_SIZE}};
    if (!request.Issue(fd, kConfigurationLength, true)) {
        return 0;
    }
    const uint16_t number = request.reply().U16(6);
    const Profile *profile = FindProfile(number);
    if (profile == nullptr) {
        LOG("Disc type(0x%04X) unreconfized and unsupported!\n", number);
        return 0;
    }
    LOG("%s", profile->message);
    info->discClass = profile->discClass;
    info->mediaKind = profile->mediaKind;
    info->recordMode = profile->recordMode;
    return profile->supported ? 1 : 0;
}

int Dev_ReadDiscInfo(const char *devPath, int fd, tDiscInfo *info) {
    using namespace talvek;
    if (info == nullptr) {
        LOG("Get Null ptr\n");
        return 0;
    }
    ReplyBuf buf;
    MmcRequest request{"READ DISC INFORMATION", devPath, kReadDiscInfo, buf};
    if (!request.IssueLearning(fd, kDiscInfoLength, [](BigEndianReader reply) {
            return std::min(WholeLength(reply), kDiscInfoMaxLength);
        })) {
        return 0;
    }
    ParseDiscInfo(request.reply(), *info);
    return 1;
}

int Dev_ReadTrackInfo(const char *devPath, int fd, tDiscInfo *info) {
    using namespace talvek;
    if (info == nullptr) {
        LOG("Get Null ptr\n");
        return 0;
    }
    ReplyBuf buf;
    MmcRequest request{"READ TRACK INFORMATION", devPath, kReadTrackInfo, buf};
    request.PatchU32(2, info->lastTrack);
    if (!request.IssueLearning(fd, kTrackInfoLength, WholeLengthToTheFull)) {
        return 0;
    }
    ParseTrackInfo(request.reply(), *info);
    if (HasDiscStatus(*info)) {
        info->usedKB = UsedKB(*info);
    }
    return 1;
}

int Dev_ReadDvdStruct(const char *devPath, int fd, tDiscInfo *info) {
    using namespace talvek;
    if (info == nullptr) {
        LOG("Get Null ptr\n");
        return 0;
    }
    ReplyBuf buf;
    MmcRequest request{"READ DVD STRUCTURE", devPath, kReadDvdStruct, buf};
    const bool dvdMinusWritable =
        info->discClass == DEV_CLASS_DVD_MINUS &&
        (info->mediaKind == DEV_MEDIA_WRITE_ONCE || info->mediaKind == DEV_MEDIA_REWRITABLE);
    if (dvdMinusWritable || info->discClass == DEV_CLASS_BD) {
        request.Patch(1, info->discClass == DEV_CLASS_BD ? 1 : 0);
        request.Patch(7, 0x10);
    }
    if (!request.IssueLearning(fd, kDvdStructLength, WholeLengthToTheFull)) {
        return 0;
    }
    ParseLayerDescriptor(request.reply(), *info);
    return 1;
}

int Dev_ReadFormatCapacity(const char *devPath, int fd, tDiscInfo *info) {
    using namespace talvek;
    if (info == nullptr) {
        LOG("Get Null ptr\n");
        return 0;
    }
    ReplyBuf buf;
    MmcRequest request{"READ FORMAT CAPACITY", devPath, kReadFormatCapacity, buf};
    if (!request.IssueLearning(fd, kFormatCapacityLength,
                               [](BigEndianReader reply) { return reply.U8(3) + 4U; })) {
        return 0;
    }
    BigEndianReader reply = request.reply();
    const uint8_t listLength = reply.U8(3);
    LOG("(%s) : reply_buf_len = %d\n", devPath != nullptr ? devPath : "", listLength);
    PrintCapacityList(reply.Sub(4, listLength));
    fflush(stdout);
    ParseFormatCapacity(reply, *info);
    return 1;
}

int Dev_ReadBufferCapacity(const char *devPath, int fd) {
    using namespace talvek;
    ReplyBuf buf;
    MmcRequest request{"READ BUFFER CAPACITY", devPath, kReadBufferCapacity, buf};
    if (!request.Issue(fd, kBufferCapacityLength)) {
        return 0;
    }
    constexpr uint32_t kMiB = 0x100000;
    const uint32_t size = request.reply().U32(4);
    if (size > kMiB) {
        LOG("buffer_size = %d MB\n", static_cast<int>((size - 1) / kMiB + 1));
    } else {
        LOG("buffer_size = ???\n");
    }
    return 1;
}
