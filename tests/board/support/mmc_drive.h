#ifndef TALVEK_TESTS_BOARD_SUPPORT_MMC_DRIVE_H
#define TALVEK_TESTS_BOARD_SUPPORT_MMC_DRIVE_H

#include <stddef.h>
#include <stdint.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "board/support/command_ring.h"
#include "support/hex_fixture.h"

namespace talvek::test {

// A CD/DVD writer whose commands this process answers, with a /dev/srN and a /dev/sgN of the
// kernel's own. The kernel's SCSI target (LIO) passes the commands here through a ring of shared
// memory (target_core_user, Documentation/target/tcmu-design.rst), its loopback fabric (tcm_loop)
// attaches the target to this machine. A thread answers, from the fixtures that the host's tests
// use.
class MmcDrive {
  public:
    // A drive with an open tray. Its nodes are there when the constructor returns.
    MmcDrive();
    ~MmcDrive();
    MmcDrive(const MmcDrive &) = delete;
    MmcDrive &operator=(const MmcDrive &) = delete;

    [[nodiscard]] const std::string &node() const { return node_; }      // "/dev/sr2"
    [[nodiscard]] const std::string &sgNode() const { return sgNode_; }  // "/dev/sg5"

    // Inserts the disc of tests/dev/fixtures/<fixture>, on which `image` can be read. The next
    // command, INQUIRY and a few others excepted, reports that (UNIT ATTENTION, 06h/28h/00h).
    void Insert(const std::string &fixture, Bytes image = {});
    void Eject();

    // From now on nothing is answered, until it is false again.
    void Hang(bool hang);

    // Whether a command is waiting for its answer.
    [[nodiscard]] bool HasPending();

    // The opcodes that came since the last call.
    [[nodiscard]] Bytes TakeOpcodes();

    // Takes the drive away from the machine, with commands on the way or not.
    void Unplug();

  private:
    void Answer();
    void AnswerRing();
    void AnswerCommand(ring::Entry &entry);

    std::string backstore_;
    std::string fabric_;
    std::string node_;
    std::string sgNode_;
    int uio_ = -1;
    int wake_ = -1;
    size_t mapSize_ = 0;
    uint8_t *map_ = nullptr;
    ring::Mailbox *mailbox_ = nullptr;
    std::thread thread_;

    std::mutex mutex_;  // guards what follows
    std::vector<HexReply> drive_;
    std::vector<HexReply> disc_;
    Bytes image_;
    Bytes opcodes_;
    bool inserted_ = false;
    bool attention_ = false;
    bool hang_ = false;
    bool stop_ = false;
};

}  // namespace talvek::test

#endif
