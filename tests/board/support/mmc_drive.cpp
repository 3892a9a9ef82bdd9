#include "board/support/mmc_drive.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "board/support/board.h"
#include "support/command.h"
#include "support/private_world.h"

namespace talvek::test {
namespace {

namespace fs = std::filesystem;

constexpr const char *kTarget = "/sys/kernel/config/target";
constexpr const char *kName = "mmc";
constexpr size_t kSectorSize = 2048;
constexpr uint8_t kCheckCondition = 0x02;

// Commands beside those of the fixtures (MMC-6, SPC-4).
enum Opcode : uint8_t {
    TestUnitReady = 0x00,
    Inquiry = 0x12,
    StartStopUnit = 0x1B,
    PreventAllowRemoval = 0x1E,
    ReadCapacity = 0x25,
    Read10 = 0x28,
    GetConfiguration = 0x46,
    GetEventStatus = 0x4A,
    ModeSense10 = 0x5A,
};

struct Reply {
    Bytes data;
    uint8_t key = 0, asc = 0, ascq = 0;  // not 0: CHECK CONDITION
};

Reply Check(uint8_t key, uint8_t asc, uint8_t ascq) {
    return {{}, key, asc, ascq};
}

void PutAttribute(const fs::path &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(ssize_t(text.size()), write(fd, text.data(), text.size()))
        << path << " : " << strerror(errno);
    close(fd);
}

uint32_t BigEndian(const uint8_t *bytes, size_t size) {
    uint32_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

Bytes BigEndian32(uint32_t value) {
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

// The uio device of our backstore: its name ends with the configuration given to it.
std::string FindUio() {
    std::error_code error;
    for (const auto &entry : fs::directory_iterator{"/sys/class/uio", error}) {
        if (ReadFile(entry.path() / "name").find(std::string{"/"} + kName + "/") !=
            std::string::npos) {
            return entry.path().filename();
        }
    }
    return "";
}

// The last reply with this opcode whose bytes of the command fit.
const HexReply *Find(const std::vector<HexReply> &replies, const uint8_t *cdb) {
    for (auto reply = replies.rbegin(); reply != replies.rend(); ++reply) {
        if (reply->opcode == cdb[0] &&
            std::all_of(reply->where.begin(), reply->where.end(),
                        [cdb](const auto &item) { return cdb[item.first] == item.second; })) {
            return &*reply;
        }
    }
    return nullptr;
}

}  // namespace

MmcDrive::MmcDrive()
    : backstore_(std::string{kTarget} + "/core/user_0/" + kName),
      fabric_(std::string{kTarget} + "/loopback/naa.6001405000000001"),
      drive_(LoadHex("drive.hex")) {
    RunCommand("modprobe -a target_core_user tcm_loop");
    fs::create_directories(backstore_);
    // Of any size: what can be read is the image inserted. Nobody configures us by netlink.
    PutAttribute(backstore_ + "/control",
                 "dev_config=mmc,dev_size=4718592,hw_block_size=2048,nl_reply_supported=-1");
    PutAttribute(backstore_ + "/enable", "1");
    std::string uio;
    EXPECT_TRUE(Await([&] { return !(uio = FindUio()).empty(); }));
    mapSize_ = std::stoul(ReadFile("/sys/class/uio/" + uio + "/maps/map0/size"), nullptr, 16);
    uio_ = open(("/dev/" + uio).c_str(), O_RDWR | O_CLOEXEC);
    void *map = mmap(nullptr, mapSize_, PROT_READ | PROT_WRITE, MAP_SHARED, uio_, 0);
    if (map == MAP_FAILED) {
        ADD_FAILURE() << "mmap(" << uio << ") : " << strerror(errno);
        return;
    }
    map_ = static_cast<uint8_t *>(map);
    mailbox_ = static_cast<ring::Mailbox *>(map);
    EXPECT_EQ(ring::kVersion, mailbox_->version);
    wake_ = eventfd(0, EFD_CLOEXEC);
    thread_ = std::thread{[this] { Answer(); }};

    // The link asks the drive what it is, so it comes last.
    fs::create_directories(fabric_ + "/tpgt_1");
    PutAttribute(fabric_ + "/tpgt_1/nexus", "naa.6001405000000002");
    fs::create_directories(fabric_ + "/tpgt_1/lun/lun_0");
    fs::create_symlink(backstore_, fabric_ + "/tpgt_1/lun/lun_0/" + kName);
    const SysfsDevice device = AwaitDevice("WR-24X");
    node_ = device.node;
    sgNode_ = device.sgNode;
}

MmcDrive::~MmcDrive() {
    Hang(false);
    Unplug();
    if (thread_.joinable()) {
        {
            const std::lock_guard lock{mutex_};
            stop_ = true;
        }
        const uint64_t one = 1;
        EXPECT_EQ(ssize_t{sizeof one}, write(wake_, &one, sizeof one));
        thread_.join();
    }
    if (map_ != nullptr) {
        munmap(map_, mapSize_);
    }
    close(uio_);
    close(wake_);
    std::error_code error;
    fs::remove(backstore_, error);
    EXPECT_FALSE(error) << error.message();
}

void MmcDrive::Unplug() {
    std::error_code error;
    if (!fs::exists(fabric_, error)) {
        return;
    }
    fs::remove(fabric_ + "/tpgt_1/lun/lun_0/" + kName, error);
    fs::remove(fabric_ + "/tpgt_1/lun/lun_0", error);
    fs::remove(fabric_ + "/tpgt_1", error);
    fs::remove(fabric_, error);
    EXPECT_FALSE(error) << error.message();
}

void MmcDrive::Insert(const std::string &fixture, Bytes image) {
    std::vector<HexReply> disc = LoadHex(fixture);
    const std::lock_guard lock{mutex_};
    disc_ = std::move(disc);
    image_ = std::move(image);
    inserted_ = true;
    attention_ = true;
    opcodes_.clear();
}

void MmcDrive::Eject() {
    const std::lock_guard lock{mutex_};
    disc_.clear();
    image_.clear();
    inserted_ = false;
    attention_ = false;
    opcodes_.clear();
}

void MmcDrive::Hang(bool hang) {
    {
        const std::lock_guard lock{mutex_};
        hang_ = hang;
    }
    const uint64_t one = 1;
    EXPECT_EQ(ssize_t{sizeof one}, write(wake_, &one, sizeof one));
}

bool MmcDrive::HasPending() {
    const std::lock_guard lock{mutex_};
    return mailbox_->tail != __atomic_load_n(&mailbox_->head, __ATOMIC_ACQUIRE);
}

Bytes MmcDrive::TakeOpcodes() {
    const std::lock_guard lock{mutex_};
    return std::exchange(opcodes_, {});
}

void MmcDrive::Answer() {
    for (;;) {
        struct pollfd items[] = {{uio_, POLLIN, 0}, {wake_, POLLIN, 0}};
        if (poll(items, 2, -1) < 0) {
            continue;
        }
        uint64_t count;
        if ((items[1].revents & POLLIN) != 0 && read(wake_, &count, sizeof count) < 0) {
            return;
        }
        uint32_t events;
        if ((items[0].revents & POLLIN) != 0 && read(uio_, &events, sizeof events) < 0) {
            return;
        }
        const std::lock_guard lock{mutex_};
        if (stop_) {
            return;
        }
        if (!hang_) {
            AnswerRing();
        }
    }
}

void MmcDrive::AnswerRing() {
    uint8_t *const entries = map_ + mailbox_->ring;
    uint32_t tail = mailbox_->tail;
    bool answered = false;
    while (tail != __atomic_load_n(&mailbox_->head, __ATOMIC_ACQUIRE)) {
        auto *entry = reinterpret_cast<ring::Entry *>(entries + tail);
        const uint32_t word = entry->header.lengthAndOpcode;
        if ((word & ring::kOpcodeMask) == ring::kCommand) {
            AnswerCommand(*entry);
            answered = true;
        }
        tail = (tail + (word & ~ring::kOpcodeMask)) % mailbox_->ringSize;
        __atomic_store_n(&mailbox_->tail, tail, __ATOMIC_RELEASE);
    }
    const uint32_t zero = 0;
    if (answered && write(uio_, &zero, sizeof zero) < 0) {
        // The target is gone and its commands with it.
    }
}

void MmcDrive::AnswerCommand(ring::Entry &entry) {
    const uint8_t *cdb = map_ + entry.request.cdb;
    opcodes_.push_back(cdb[0]);
    const auto answer = [&]() -> Reply {
        if (cdb[0] == Inquiry) {
            return {Find(drive_, cdb)->data};
        }
        if (cdb[0] == GetEventStatus) {
            // Media class: no event, medium there or not, tray closed (MMC-6 6.6.2.6).
            return {{0, 6, 4, 0x10, 0, static_cast<uint8_t>(inserted_ ? 2 : 0), 0, 0}};
        }
        if (cdb[0] == PreventAllowRemoval || cdb[0] == StartStopUnit) {
            return {};
        }
        if (cdb[0] == ModeSense10 && (cdb[2] & 0x3F) == 0x2A) {
            // Capabilities: reads and writes CD and DVD, a tray (MMC-3 5.5.10).
            return {{0, 28, 0, 0, 0, 0, 0, 0, 0x2A, 0x14, 0x3F, 0x37, 0, 0, 0x29,
                     0, 0,  0, 0, 0, 0, 0, 0, 0,    0,    0,    0,    0, 0, 0}};
        }
        if (attention_) {
            attention_ = false;
            return Check(0x06, 0x28, 0x00);  // not ready to ready change, medium may have changed
        }
        if (const HexReply *reply = Find(disc_, cdb)) {
            return {reply->data};
        }
        if (const HexReply *reply = Find(drive_, cdb)) {
            return {reply->data};
        }
        if (!inserted_) {
            return Check(0x02, 0x3A, 0x00);  // medium not present
        }
        if (cdb[0] == TestUnitReady) {
            return {};
        }
        if (cdb[0] == ReadCapacity && !image_.empty()) {
            Bytes data = BigEndian32(static_cast<uint32_t>(image_.size() / kSectorSize - 1));
            const Bytes size = BigEndian32(kSectorSize);
            data.insert(data.end(), size.begin(), size.end());
            return {data};
        }
        if (cdb[0] == Read10) {
            const size_t begin = size_t{BigEndian(cdb + 2, 4)} * kSectorSize;
            const size_t size = size_t{BigEndian(cdb + 7, 2)} * kSectorSize;
            if (begin + size > image_.size()) {
                return Check(0x05, 0x21, 0x00);  // address out of range
            }
            const auto first = image_.begin() + static_cast<std::ptrdiff_t>(begin);
            return {Bytes(first, first + static_cast<std::ptrdiff_t>(size))};
        }
        return Check(0x05, 0x20, 0x00);  // invalid command operation code
    };
    const Reply reply = answer();

    const auto *pieces = reinterpret_cast<const ring::Piece *>(&entry.request + 1);
    size_t sent = 0;
    for (uint32_t i = 0; i < entry.request.pieces; ++i) {
        const size_t size = std::min(pieces[i].size, reply.data.size() - sent);
        if (size > 0) {
            memcpy(map_ + pieces[i].offset, reply.data.data() + sent, size);
        }
        sent += size;
    }
    entry.response = {};
    if (reply.key != 0) {
        entry.response.status = kCheckCondition;
        const uint8_t sense[] = {0x70, 0, reply.key, 0,         0,          0, 0, 10, 0,
                                 0,    0, 0,         reply.asc, reply.ascq, 0, 0, 0,  0};
        memcpy(entry.response.sense, sense, sizeof sense);
    } else if ((mailbox_->flags & ring::kCountsReadBytes) != 0) {
        entry.header.userFlags |= ring::kReadLengthIsSet;
        entry.response.readLength = static_cast<uint32_t>(sent);
    }
}

}  // namespace talvek::test
