#include "support/simulated_drive.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <scsi/scsi.h>
#include <scsi/scsi_ioctl.h>
#include <scsi/sg.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace talvek::test {
namespace {

std::vector<SimulatedDrive *> g_drives;
std::vector<double> g_pauses;

// These use system calls because a test may make the C library's functions fail.
uint64_t InodeOf(int fd) {
    struct statx st = {};
    if (syscall(SYS_statx, fd, "", AT_EMPTY_PATH, STATX_INO, &st) != 0) {
        return 0;
    }
    return st.stx_ino;
}

int Duplicate(int fd, int flags) {
#ifdef SYS_fcntl64
    constexpr long kFcntl = SYS_fcntl64;
#else
    constexpr long kFcntl = SYS_fcntl;
#endif
    return static_cast<int>(
        syscall(kFcntl, fd, (flags & O_CLOEXEC) != 0 ? F_DUPFD_CLOEXEC : F_DUPFD, 0));
}

bool AllZero(const void *pBytes, size_t size) {
    const auto *bytes = static_cast<const uint8_t *>(pBytes);
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

bool Matches(const Bytes &cdb, const std::map<size_t, uint8_t> &where) {
    return std::all_of(where.begin(), where.end(), [&cdb](const auto &item) {
        return item.first < cdb.size() && cdb[item.first] == item.second;
    });
}

bool IsDeviceNode(const std::string &path) {
    for (const char *prefix : {"/dev/sd", "/dev/sr", "/dev/sg", "/dev/nst", "/dev/nosst"}) {
        if (path.rfind(prefix, 0) == 0) {
            return true;
        }
    }
    return false;
}

SimulatedDrive *DriveOf(int fd) {
    for (SimulatedDrive *drive : g_drives) {
        if (drive->IsFd(fd)) {
            return drive;
        }
    }
    return nullptr;
}

int FailWith(int error) {
    errno = error;
    return -1;
}

SgRequest Describe(const sg_io_hdr_t &hdr) {
    SgRequest request = {};
    request.cdb.assign(hdr.cmdp, hdr.cmdp + hdr.cmd_len);
    request.interfaceId = hdr.interface_id;
    request.direction = hdr.dxfer_direction;
    request.length = hdr.dxfer_len;
    request.timeout = hdr.timeout;
    request.senseSize = hdr.mx_sb_len;
    request.cleared = AllZero(hdr.sbp, hdr.mx_sb_len) &&
                      (hdr.dxferp == nullptr || AllZero(hdr.dxferp, hdr.dxfer_len));
    return request;
}

void Deliver(const SgAnswer &answer, sg_io_hdr_t &hdr) {
    const size_t sent = hdr.dxfer_direction == SG_DXFER_FROM_DEV
                            ? std::min<size_t>(answer.data.size(), hdr.dxfer_len)
                            : 0;
    if (sent > 0) {
        memcpy(hdr.dxferp, answer.data.data(), sent);
    }
    hdr.resid = answer.residue.value_or(static_cast<int>(hdr.dxfer_len - sent));
    const size_t sense = std::min<size_t>(answer.sense.size(), hdr.mx_sb_len);
    if (sense > 0) {
        memcpy(hdr.sbp, answer.sense.data(), sense);
    }
    hdr.sb_len_wr = static_cast<uint8_t>(sense);
    hdr.status = answer.status;
    hdr.masked_status = answer.maskedStatus;
    hdr.host_status = answer.hostStatus;
    hdr.driver_status = answer.driverStatus;
    hdr.info = answer.info;
    hdr.duration = 1;
}

}  // namespace

SgAnswer SgAnswer::Data(Bytes data) {
    SgAnswer answer;
    answer.data = std::move(data);
    return answer;
}

SgAnswer SgAnswer::Error(int error) {
    SgAnswer answer;
    answer.error = error;
    return answer;
}

SgAnswer SgAnswer::Check(uint8_t key, uint8_t asc, uint8_t ascq) {
    SgAnswer answer;
    answer.info = SG_INFO_CHECK;
    answer.status = 0x02;        // CHECK CONDITION
    answer.maskedStatus = 0x01;  // the same, shifted
    answer.driverStatus = 0x08;  // DRIVER_SENSE
    answer.sense = {0x70, 0, key, 0, 0, 0, 0, 10, 0, 0, 0, 0, asc, ascq, 0, 0, 0, 0};
    return answer;
}

SimulatedDrive::SimulatedDrive(std::vector<std::string> paths) : paths_(std::move(paths)) {
    fd_ = static_cast<int>(syscall(SYS_memfd_create, "simulated drive", 1U /* MFD_CLOEXEC */));
    EXPECT_GE(fd_, 0);
    inode_ = InodeOf(fd_);
    g_drives.push_back(this);
}

SimulatedDrive::~SimulatedDrive() {
    g_drives.erase(std::find(g_drives.begin(), g_drives.end(), this));
    syscall(SYS_close, fd_);
}

void SimulatedDrive::Load(const std::string &fixture) {
    for (HexReply &reply : LoadHex(fixture)) {
        Reply(reply.opcode, std::move(reply.data), std::move(reply.where));
    }
}

SimulatedDrive::Stored *SimulatedDrive::Find(uint8_t opcode,
                                             const std::map<size_t, uint8_t> &where) {
    for (Stored &stored : stored_) {
        if (stored.opcode == opcode && stored.where == where) {
            return &stored;
        }
    }
    return nullptr;
}

void SimulatedDrive::Reply(uint8_t opcode, Bytes data, std::map<size_t, uint8_t> where) {
    if (Stored *stored = Find(opcode, where)) {
        stored->data = std::move(data);
        return;
    }
    stored_.push_back({opcode, std::move(where), std::move(data)});
}

Bytes &SimulatedDrive::Data(uint8_t opcode, const std::map<size_t, uint8_t> &where) {
    if (Find(opcode, where) == nullptr) {
        ADD_FAILURE() << "no reply to change for opcode " << int{opcode};
        Reply(opcode, {}, where);
    }
    return Find(opcode, where)->data;
}

void SimulatedDrive::Patch(uint8_t opcode, size_t at, const Bytes &bytes,
                           const std::map<size_t, uint8_t> &where) {
    Bytes &data = Data(opcode, where);
    ASSERT_LE(at + bytes.size(), data.size());
    std::copy(bytes.begin(), bytes.end(), data.begin() + static_cast<std::ptrdiff_t>(at));
}

void SimulatedDrive::Next(uint8_t opcode, SgAnswer answer) {
    next_[opcode].emplace_back(std::move(answer));
}

void SimulatedDrive::Fail(uint8_t opcode, int nth, SgAnswer answer) {
    next_[opcode].assign(static_cast<size_t>(nth), std::nullopt);
    Next(opcode, std::move(answer));
}

void SimulatedDrive::Always(uint8_t opcode, SgAnswer answer) {
    always_[opcode] = std::move(answer);
}

int SimulatedDrive::Open() const {
    return Duplicate(fd_, O_CLOEXEC);
}

std::vector<SgRequest> SimulatedDrive::RequestsOf(uint8_t opcode) const {
    std::vector<SgRequest> found;
    std::copy_if(requests.begin(), requests.end(), std::back_inserter(found),
                 [opcode](const SgRequest &request) { return request.cdb[0] == opcode; });
    return found;
}

std::vector<uint8_t> SimulatedDrive::Opcodes() const {
    std::vector<uint8_t> opcodes;
    std::transform(requests.begin(), requests.end(), std::back_inserter(opcodes),
                   [](const SgRequest &request) { return request.cdb[0]; });
    return opcodes;
}

bool SimulatedDrive::HasPath(const std::string &path) const {
    return std::find(paths_.begin(), paths_.end(), path) != paths_.end();
}

bool SimulatedDrive::IsFd(int fd) const {
    return fd >= 0 && InodeOf(fd) == inode_;
}

SgAnswer SimulatedDrive::AnswerTo(const SgRequest &request) {
    const uint8_t opcode = request.cdb[0];
    if (auto &queue = next_[opcode]; !queue.empty()) {
        const std::optional<SgAnswer> answer = std::move(queue.front());
        queue.pop_front();
        if (answer) {
            return *answer;
        }
    }
    if (const auto found = always_.find(opcode); found != always_.end()) {
        return found->second;
    }
    for (auto stored = stored_.rbegin(); stored != stored_.rend(); ++stored) {
        if (stored->opcode == opcode && Matches(request.cdb, stored->where)) {
            SgAnswer answer = SgAnswer::Data(stored->data);
            if (const auto limit = cut.find(opcode); limit != cut.end()) {
                answer.data.resize(std::min(answer.data.size(), limit->second));
            }
            return answer;
        }
    }
    return opcode == 0x00 ? SgAnswer{} : SgAnswer::Check(0x05, 0x20, 0x00);
}

int SimulatedDrive::Ioctl(unsigned long request, void *arg) {
    switch (request) {
        case SG_GET_VERSION_NUM:
            if (versionError != 0) {
                return FailWith(versionError);
            }
            *static_cast<int *>(arg) = driverVersion;
            return 0;
        case SCSI_IOCTL_GET_BUS_NUMBER:
            if (busNumberError != 0) {
                return FailWith(busNumberError);
            }
            *static_cast<int *>(arg) = static_cast<int>(host);
            return 0;
        case SCSI_IOCTL_GET_IDLUN: {
            if (idlunError != 0) {
                return FailWith(idlunError);
            }
            const uint32_t words[2] = {idlun, 0x4C4E55};  // the second: the host's unique number
            memcpy(arg, words, sizeof words);
            return 0;
        }
        case SCSI_IOCTL_PROBE_HOST: {
            if (probeError != 0) {
                return FailWith(probeError);
            }
            // The first word is the size of the buffer; the text overwrites it.
            unsigned room = 0;
            memcpy(&room, arg, sizeof room);
            const size_t size = std::min<size_t>(room, hostText.size() + 1);
            memcpy(arg, hostText.c_str(), size);
            return 1;
        }
        case SG_IO: {
            auto &hdr = *static_cast<sg_io_hdr_t *>(arg);
            const SgRequest described = Describe(hdr);
            requests.push_back(described);
            const SgAnswer answer = AnswerTo(described);
            if (answer.error != 0) {
                return FailWith(answer.error);
            }
            Deliver(answer, hdr);
            hdr.sb_len_wr = claimedSense.value_or(hdr.sb_len_wr);
            return 0;
        }
        default:
            break;
    }
    const std::optional<int> result = otherIoctl ? otherIoctl(request, arg) : std::nullopt;
    return result ? *result : FailWith(ENOTTY);
}

std::string HexText(const Bytes &bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char hex[4];
        snprintf(hex, sizeof hex, "%02x", byte);
        if (!text.empty()) {
            text += ' ';
        }
        text += hex;
    }
    return text;
}

std::vector<double> TakePauses() {
    return std::exchange(g_pauses, {});
}

}  // namespace talvek::test

// The definitions of open and ioctl. They have assembler names because <sys/ioctl.h> and <fcntl.h>
// rename the two on 32 bits.
extern "C" {
int SimulatedIoctl(int fd, unsigned long request, ...) __asm__("ioctl");
int SimulatedOpen(const char *path, int flags, ...) __asm__("open");
int __wrap_COM_SleepAtLeast(const struct timespec *pTime, int maxRounds);
}

namespace {

int IoctlOf(int fd, unsigned long request, void *arg) {
    talvek::test::SimulatedDrive *drive = talvek::test::DriveOf(fd);
    if (drive != nullptr) {
        return drive->Ioctl(request, arg);
    }
    return static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
}

int OpenOf(const char *path, int flags, mode_t mode) {
    using namespace talvek::test;
    for (SimulatedDrive *drive : g_drives) {
        if (drive->HasPath(path)) {
            if (drive->openError != 0) {
                return FailWith(drive->openError);
            }
            ++drive->opens;
            drive->openFlags = flags;
            const int fd = drive->Open();
            return fd;
        }
    }
    if (!g_drives.empty() && IsDeviceNode(path)) {
        return FailWith(ENOENT);
    }
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | O_LARGEFILE, mode));
}

}  // namespace

#define TAKE_LAST(type, from)             \
    va_list list;                         \
    va_start(list, from);                 \
    const auto last = va_arg(list, type); \
    va_end(list)

int SimulatedIoctl(int fd, unsigned long request, ...) {
    TAKE_LAST(void *, request);
    return IoctlOf(fd, request, last);
}

int SimulatedOpen(const char *path, int flags, ...) {
    TAKE_LAST(unsigned, flags);
    return OpenOf(path, flags, last);
}

#if __SIZEOF_POINTER__ == 4
extern "C" {
int SimulatedIoctl64(int fd, unsigned long request, ...) __asm__("__ioctl_time64");
int SimulatedOpen64(const char *path, int flags, ...) __asm__("open64");
}

int SimulatedIoctl64(int fd, unsigned long request, ...) {
    TAKE_LAST(void *, request);
    return IoctlOf(fd, request, last);
}

int SimulatedOpen64(const char *path, int flags, ...) {
    TAKE_LAST(unsigned, flags);
    return OpenOf(path, flags, last);
}
#endif

int __wrap_COM_SleepAtLeast(const struct timespec *pTime, int) {
    talvek::test::g_pauses.push_back(static_cast<double>(pTime->tv_sec) +
                                     static_cast<double>(pTime->tv_nsec) / 1e9);
    return 0;
}
