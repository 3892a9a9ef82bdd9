// READ TOC/PMA/ATIP: the ATIP of a recordable CD, a CD's table of contents, the tracks of a DVD.

#include "dev/toc.h"

#include <stdio.h>

#include <array>

#include "base/cancel_guard.h"
#include "dev/internal/mmc_request.h"
#include "dev/internal/module_log.h"
#include "dev/internal/used_kb.h"

namespace {

using talvek::BigEndianReader;
using talvek::MmcRequest;
using talvek::ReplyBuf;
using talvek::WholeLength;

using Cdb10 = std::array<uint8_t, 10>;

constexpr uint32_t kHeaderLength = 4;

// Byte 1: 02h asks for positions in minutes, seconds and frames, 0 for block addresses. Byte 2: the
// format, 04h for the ATIP and 0 for the table of contents. Byte 6: the first track.
constexpr Cdb10 kReadAtip = {0x43, 0x02, 0x04, 0, 0, 0, 0, 0, kHeaderLength, 0};
constexpr Cdb10 kReadCdToc = {0x43, 0x02, 0, 0, 0, 0, 1, 0, kHeaderLength, 0};
constexpr Cdb10 kReadDvdToc = {0x43, 0, 0, 0, 0, 0, 1, 0, kHeaderLength, 0};

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

}  // namespace

int Dev_ReadCdATIP(const char *pDevPath, int fd, tDiscInfo *pInfo) {
    const talvek::CancelGuard guard;
    if (pInfo == nullptr) {
        LOG("Get Null ptr\n");
        return DEV_QUERY_FAILED;
    }
    ReplyBuf buf;
    MmcRequest request{"(0100b ; ATIP -MSF-)", pDevPath, kReadAtip, buf};
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
    MmcRequest request{"(0000b ; Formatted TOC -MSF-)", pDevPath, kReadCdToc, buf};
    const bool found =
        request.IssueTwice(fd, kHeaderLength, WholeLength) && ParseCdToc(request.reply(), *pInfo);
    return found ? DEV_QUERY_OK : DEV_QUERY_FAILED;
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
    MmcRequest request{"READ TOC/PMA/ATIP", pDevPath, kReadDvdToc, buf};
    if (!request.IssueTwice(fd, kHeaderLength, WholeLength)) {
        return DEV_QUERY_FAILED;
    }
    uint32_t leadOut = 0;
    const bool found = ParseDvdToc(request.reply(), leadOut);
    fflush(stdout);
    if (!found) {
        return DEV_QUERY_FAILED;
    }
    pInfo->usedKB = talvek::UsedKB(*pInfo, (leadOut + 1ULL) * 2);
    LOG("Used capacity = %llu MB.\n", static_cast<unsigned long long>(pInfo->usedKB >> 10));
    return DEV_QUERY_OK;
}
