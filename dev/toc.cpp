// READ TOC/PMA/ATIP: a blank CD's ATIP, a CD's table of contents, the tracks of a DVD.

#include "dev/toc.h"

#include <stdio.h>

#include <array>

#include "dev/internal/mmc_request.h"
#include "dev/internal/module_log.h"

namespace talvek {
namespace {

constexpr uint32_t kHeaderLength = 4;
constexpr std::array<uint8_t, 10> kReadToc = {0x43, 0, 0, 0, 0, 0, 0, 0, kHeaderLength, 0};

constexpr uint8_t kMsf = 0x02;
constexpr uint8_t kFormatAtip = 0x04;
constexpr uint8_t kFirstTrack = 1;

constexpr const char *kAtip = "(0100b ; ATIP -MSF-)";
constexpr const char *kCdToc = "(0000b ; Formatted TOC -MSF-)";
constexpr const char *kDvdToc = "READ TOC/PMA/ATIP";

constexpr uint8_t kLeadOut = 0xAA;  // its track number

uint32_t WholeLength(BigEndianReader reply) {
    return reply.U16(0) + 2U;
}

// A position as minutes, seconds and frames, 75 frames a second. A frame is a sector of 2 KB.
struct Msf {
    int minutes;
    int seconds;
    int frames;
    [[nodiscard]] uint32_t Frames() const {
        return static_cast<uint32_t>((minutes * 60 + seconds) * 75 + frames);
    }
};

Msf ReadMsf(BigEndianReader &reply, size_t at) {
    return {reply.U8(at), reply.U8(at + 1), reply.U8(at + 2)};
}

Msf SplitFrames(uint32_t frames) {
    return {static_cast<int>(frames / 4500), static_cast<int>(frames % 4500 / 75),
            static_cast<int>(frames % 75)};
}

const char *SubTypeName(uint32_t subType) {
    constexpr const char *kNames[] = {"Normal Speed", "High   Speed", "Ultra  Speed"};
    return subType < std::size(kNames) ? kNames[subType] : "Not Defined";
}

// The ATIP descriptor stands behind the header.
void ParseAtip(BigEndianReader reply, tDiscInfo &info) {
    constexpr const char *kEntry = "Dev_ReadCdATIP";
    printf("Reference Speed = %0d\n", reply.U8(4) & 0x07);
    // Bit 0 tells a CD-RW here, not the standard's disc type bit 6.
    // Held by ReadCdAtip.TellsTheDiscTypeByBitZero.
    LOG_AS(kEntry, "Disc Type : %s\n", (reply.U8(6) & 0x01) != 0 ? "CD-RW" : "CD-R");
    info.cdSubType = (reply.U8(6) >> 3) & 0x07;
    printf("Disc Sub Type = %s\n", SubTypeName(info.cdSubType));
    const Msf leadIn = ReadMsf(reply, 8);
    const Msf leadOut = ReadMsf(reply, 12);
    LOG_AS(kEntry, "Start Time of Lead-in %02d:%02d:%02d\n", leadIn.minutes, leadIn.seconds,
           leadIn.frames);
    LOG_AS(kEntry, "Start Time of Lead-out %02d:%02d:%02d\n", leadOut.minutes, leadOut.seconds,
           leadOut.frames);
    info.totalKB = 2ULL * leadOut.Frames();
    LOG_AS(kEntry, "Disc Space is %d KB\n", static_cast<int>(info.totalKB));
}

// Logical block 0 of a CD is at 00:02:00.
constexpr uint32_t kFirstBlockFrames = 150;

// Frames from the start of a session's lead-out to that of the next lead-in.
constexpr uint32_t kFirstSessionGap = 11250;
constexpr uint32_t kLaterSessionGap = 6750;

constexpr size_t kDescriptorSize = 8;

// Descriptors of eight bytes stand behind the header, the last track's before the lead-out's.
bool ParseCdToc(BigEndianReader reply, tDiscInfo &info) {
    constexpr const char *kEntry = "Dev_ReadCdToc";
    const uint8_t lastTrack = reply.U8(3);
    const size_t leadOutAt = kHeaderLength + kDescriptorSize * lastTrack;
    if (lastTrack == 0 || !reply.Has(leadOutAt, kDescriptorSize)) {
        return false;
    }
    const Msf track = ReadMsf(reply, leadOutAt - kDescriptorSize + 5);
    const Msf leadOut = ReadMsf(reply, leadOutAt + 5);
    LOG_AS(kEntry, "Last track is %d\n", lastTrack);
    // This line gives the start of the last track. Held by ReadCdToc.TellsTheLastTrackAsLeadIn.
    LOG_AS(kEntry, "Last Lead-in at %02d:%02d:%02d\n", track.minutes, track.seconds, track.frames);
    LOG_AS(kEntry, "Last Lead-out at %02d:%02d:%02d\n", leadOut.minutes, leadOut.seconds,
           leadOut.frames);
    info.nextLeadIn = leadOut.Frames() + (lastTrack == 1 ? kFirstSessionGap : kLaterSessionGap);
    const Msf next = SplitFrames(info.nextLeadIn + kFirstBlockFrames);
    LOG_AS(kEntry, "Next Lead-in at %02d:%02d:%02d\n", next.minutes, next.seconds, next.frames);
    info.lastTrack = lastTrack;
    info.lastTrackStart = track.Frames() - kFirstBlockFrames;
    return true;
}

// Prints the tracks up to the lead-out and gives its address.
bool ParseDvdToc(BigEndianReader reply, uint32_t &leadOut) {
    for (size_t at = kHeaderLength; reply.Has(at, kDescriptorSize); at += kDescriptorSize) {
        const unsigned control = reply.U8(at + 1);
        const unsigned track = reply.U8(at + 2);
        const uint32_t start = reply.U32(at + 4);
        if (track == kLeadOut) {
            printf(" Track#%-2X :             %02x@%u\n", track, control, start);
            leadOut = start;
            return true;
        }
        printf(" Track#%-3u:             %02x@%u\n", track, control, start);
    }
    return false;
}

uint64_t UsedKB(const tDiscInfo &info, uint32_t leadOut) {
    switch (info.discStatus) {
        case DEV_DISC_INCOMPLETE:
            return (leadOut + 1ULL) * 2;
        case DEV_DISC_FINALIZED:
            return info.totalKB;
        default:
            return 0;
    }
}

}  // namespace
}  // namespace talvek

int Dev_ReadCdATIP(const char *devPath, int fd, tDiscInfo *info) {
    using namespace talvek;
    if (info == nullptr) {
        LOG("Get Null ptr\n");
        return 0;
    }
    ReplyBuf buf;
    MmcRequest request{kAtip, devPath, kReadToc, buf};
    request.Patch(1, kMsf);
    request.Patch(2, kFormatAtip);
    if (!request.IssueLearning(fd, kHeaderLength, WholeLength)) {
        return 0;
    }
    ParseAtip(request.reply(), *info);
    return 1;
}

int Dev_ReadCdToc(const char *devPath, int fd, tDiscInfo *info) {
    using namespace talvek;
    if (info == nullptr) {
        LOG("Get Null ptr\n");
        return 0;
    }
    ReplyBuf buf;
    MmcRequest request{kCdToc, devPath, kReadToc, buf};
    request.Patch(1, kMsf);
    request.Patch(6, kFirstTrack);
    if (!request.IssueLearning(fd, kHeaderLength, WholeLength)) {
        return 0;
    }
    return ParseCdToc(request.reply(), *info) ? 1 : 0;
}

int Dev_ReadDvdRToc(const char *devPath, int fd, tDiscInfo *info) {
    using namespace talvek;
    if (info == nullptr) {
        LOG("Get Null ptr\n");
        return 0;
    }
    if ((info->discClass != DEV_CLASS_DVD_MINUS && info->discClass != DEV_CLASS_DVD_PLUS) ||
        info->mediaKind != DEV_MEDIA_WRITE_ONCE) {
        return 0;
    }
    // Addresses in blocks: minutes, seconds and frames end before half of a DVD.
    ReplyBuf buf;
    MmcRequest request{kDvdToc, devPath, kReadToc, buf};
    request.Patch(6, kFirstTrack);
    if (!request.IssueLearning(fd, kHeaderLength, WholeLength)) {
        return 0;
    }
    uint32_t leadOut = 0;
    const bool found = ParseDvdToc(request.reply(), leadOut);
    fflush(stdout);
    if (!found) {
        return 0;
    }
    info->usedKB = UsedKB(*info, leadOut);
    LOG("Used capacity = %llu MB.\n", static_cast<unsigned long long>(info->usedKB >> 10));
    return 1;
}
