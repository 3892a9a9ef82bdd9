// READ TOC/PMA/ATIP: the ATIP of a recordable CD, a CD's table of contents, the tracks of a DVD.

#include "dev/toc.h"

#include <stdio.h>

#include <array>

#include "base/cancel_guard.h"
#include "dev/internal/mmc_request.h"
#include "dev/internal/module_log.h"

namespace {

using talvek::BigEndianReader;
using talvek::MmcRequest;
using talvek::ReplyBuf;
using talvek::WholeLength;

constexpr uint32_t kHeaderLength = 4;
constexpr std::array<uint8_t, 10> kReadToc = {0x43, 0, 0, 0, 0, 0, 0, 0, kHeaderLength, 0};

constexpr uint8_t kMsf = 0x02;
constexpr uint8_t kFormatAtip = 0x04;
constexpr uint8_t kFirstTrack = 1;

constexpr const char *kAtipLabel = "(0100b ; ATIP -MSF-)";
constexpr const char *kCdTocLabel = "(0000b ; Formatted TOC -MSF-)";
constexpr const char *kDvdTocLabel = "READ TOC/PMA/ATIP";

constexpr uint8_t kLeadOut = 0xAA;  // the track number of the lead-out

// A position in minutes, seconds and frames, 75 frames a second. A frame is a sector of 2 KB.
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
    switch (subType) {
        case DEV_CD_NORMAL_SPEED:
            return "Normal Speed";
        case DEV_CD_HIGH_SPEED:
            return "High   Speed";
        case DEV_CD_ULTRA_SPEED:
            return "Ultra  Speed";
        default:
            return "Not Defined";
    }
}

// The ATIP descriptor follows the header.
void ParseAtip(BigEndianReader reply, tDiscInfo &info) {
    constexpr const char *kFunction = "Dev_ReadCdATIP";
    printf("Reference Speed = %0d\n", reply.U8(4) & 0x07);
    // Bit 0 decides, not the standard's disc type bit 6. Tested by
    // ReadCdAtip.TakesTheDiscTypeFromBitZero.
    LOG_AS(kFunction, "Disc Type : %s\n", (reply.U8(6) & 0x01) != 0 ? "CD-RW" : "CD-R");
    info.cdSubType = (reply.U8(6) >> 3) & 0x07;
    printf("Disc Sub Type = %s\n", SubTypeName(info.cdSubType));
    const Msf leadIn = ReadMsf(reply, 8);
    const Msf leadOut = ReadMsf(reply, 12);
    LOG_AS(kFunction, "Start Time of Lead-in %02d:%02d:%02d\n", leadIn.minutes, leadIn.seconds,
           leadIn.frames);
    LOG_AS(kFunction, "Start Time of Lead-out %02d:%02d:%02d\n", leadOut.minutes, leadOut.seconds,
           leadOut.frames);
    info.totalKB = 2ULL * leadOut.Frames();
    LOG_AS(kFunction, "Disc Space is %d KB\n", static_cast<int>(info.totalKB));
}

// Logical block 0 of a CD has the position 00:02:00.
constexpr uint32_t kFirstBlockFrames = 150;

// Frames from the start of a session's lead-out to that of the next lead-in.
constexpr uint32_t kFirstSessionGap = 11250;
constexpr uint32_t kLaterSessionGap = 6750;

constexpr size_t kDescriptorSize = 8;

// Descriptors of eight bytes follow the header, one a track from track 1 on, then the lead-out's.
// The reply must be long enough for all of them.
bool ParseCdToc(BigEndianReader reply, tDiscInfo &info) {
    constexpr const char *kFunction = "Dev_ReadCdToc";
    const uint8_t lastTrack = reply.U8(3);
    const size_t leadOutAt = kHeaderLength + kDescriptorSize * lastTrack;
    if (lastTrack == 0 || !reply.Has(leadOutAt, kDescriptorSize)) {
        return false;
    }
    const Msf track = ReadMsf(reply, leadOutAt - kDescriptorSize + 5);
    const Msf leadOut = ReadMsf(reply, leadOutAt + 5);
    LOG_AS(kFunction, "Last track is %d\n", lastTrack);
    // This line has the start of the last track. Tested by ReadCdToc.LogsTheLastTrackAsLeadIn.
    LOG_AS(kFunction, "Last Lead-in at %02d:%02d:%02d\n", track.minutes, track.seconds,
           track.frames);
    LOG_AS(kFunction, "Last Lead-out at %02d:%02d:%02d\n", leadOut.minutes, leadOut.seconds,
           leadOut.frames);
    info.nextLeadIn = leadOut.Frames() + (lastTrack == 1 ? kFirstSessionGap : kLaterSessionGap);
    const Msf next = SplitFrames(info.nextLeadIn + kFirstBlockFrames);
    LOG_AS(kFunction, "Next Lead-in at %02d:%02d:%02d\n", next.minutes, next.seconds, next.frames);
    info.lastTrack = lastTrack;
    info.lastTrackStart = track.Frames() - kFirstBlockFrames;
    return true;
}

// Prints the tracks and the lead-out, whose address it stores; false without a lead-out.
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

// Requests a table of contents from the first track on.
bool ReadToc(MmcRequest &request, int fd) {
    request.Patch(6, kFirstTrack);
    return request.IssueTwice(fd, kHeaderLength, WholeLength);
}

}  // namespace

int Dev_ReadCdATIP(const char *pDevPath, int fd, tDiscInfo *pInfo) {
    const talvek::CancelGuard guard;
    if (pInfo == nullptr) {
        LOG("Get Null ptr\n");
        return DEV_QUERY_FAILED;
    }
    ReplyBuf buf;
    MmcRequest request{kAtipLabel, pDevPath, kReadToc, buf};
    request.Patch(1, kMsf);
    request.Patch(2, kFormatAtip);
    if (!request.IssueTwice(fd, kHeaderLength, WholeLength)) {
        return DEV_QUERY_FAILED;
    }
    ParseAtip(request.reply(), *pInfo);
    return DEV_QUERY_OK;
}

int Dev_ReadCdToc(const char *pDevPath, int fd, tDiscInfo *pInfo) {
    const talvek::CancelGuard guard;
    if (pInfo == nullptr) {
        LOG("Get Null ptr\n");
        return DEV_QUERY_FAILED;
    }
    ReplyBuf buf;
    MmcRequest request{kCdTocLabel, pDevPath, kReadToc, buf};
    request.Patch(1, kMsf);
    return ReadToc(request, fd) && ParseCdToc(request.reply(), *pInfo) ? DEV_QUERY_OK
                                                                       : DEV_QUERY_FAILED;
}

int Dev_ReadDvdRToc(const char *pDevPath, int fd, tDiscInfo *pInfo) {
    const talvek::CancelGuard guard;
    if (pInfo == nullptr) {
        LOG("Get Null ptr\n");
        return DEV_QUERY_FAILED;
    }
    if ((pInfo->discClass != DEV_CLASS_DVD_MINUS && pInfo->discClass != DEV_CLASS_DVD_PLUS) ||
        pInfo->mediaKind != DEV_MEDIA_WRITE_ONCE) {
        return DEV_QUERY_FAILED;
    }
    // Positions in minutes, seconds and frames cannot express the second half of a DVD, so block
    // addresses are requested.
    ReplyBuf buf;
    MmcRequest request{kDvdTocLabel, pDevPath, kReadToc, buf};
    if (!ReadToc(request, fd)) {
        return DEV_QUERY_FAILED;
    }
    uint32_t leadOut = 0;
    const bool found = ParseDvdToc(request.reply(), leadOut);
    fflush(stdout);
    if (!found) {
        return DEV_QUERY_FAILED;
    }
    pInfo->usedKB = UsedKB(*pInfo, leadOut);
    LOG("Used capacity = %llu MB.\n", static_cast<unsigned long long>(pInfo->usedKB >> 10));
    return DEV_QUERY_OK;
}
