#ifndef TALVEK_TESTS_SUPPORT_SIMULATED_DRIVE_H
#define TALVEK_TESTS_SUPPORT_SIMULATED_DRIVE_H

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/hex_fixture.h"

// Simulated SCSI devices. A program that uses them links simulated_drive, which defines open and
// ioctl: calls that concern no simulated device go to the kernel. COM_SleepAtLeast does not sleep
// in such a program but records the time that it should sleep.

namespace talvek::test {

// One SG_IO request as the driver got it.
struct SgRequest {
    Bytes cdb;
    int interfaceId;
    int direction;       // SG_DXFER_...
    unsigned length;     // dxfer_len
    unsigned timeout;    // milliseconds
    unsigned senseSize;  // mx_sb_len
    bool cleared;        // sense buffer and the requested bytes of the reply buffer held only zeros
};

// The driver's answer to one request.
struct SgAnswer {
    Bytes data;     // sent up to the requested length
    int error = 0;  // not 0: the ioctl fails with this errno
    unsigned info = 0;
    uint8_t status = 0;
    uint8_t maskedStatus = 0;
    uint16_t hostStatus = 0;
    uint16_t driverStatus = 0;
    Bytes sense;
    std::optional<int> residue;  // hdr.resid; without one, the bytes that were not sent

    static SgAnswer Data(Bytes data);
    static SgAnswer Error(int error);
    // CHECK CONDITION with 18 bytes of fixed-format sense, as a drive and sg 3.5 report it.
    static SgAnswer Check(uint8_t key, uint8_t asc, uint8_t ascq);
};

// One device with one or several nodes. Without further replies TEST UNIT READY succeeds and every
// other command fails with 05h/20h/00h, invalid command.
class SimulatedDrive {
  public:
    // `paths` are its nodes. While any device exists, all other paths /dev/sd*, /dev/sr*, /dev/sg*,
    // /dev/nst* and /dev/nosst* do not exist.
    explicit SimulatedDrive(std::vector<std::string> paths = {});
    ~SimulatedDrive();
    SimulatedDrive(const SimulatedDrive &) = delete;
    SimulatedDrive &operator=(const SimulatedDrive &) = delete;

    // Adds the replies of a file of tests/dev/fixtures (LoadHex). Later ones replace earlier ones.
    void Load(const std::string &fixture);
    // Sets the whole reply to a command. `where` lists CDB bytes and the values that they must
    // have, so that two forms of one command can differ.
    void Reply(uint8_t opcode, Bytes data, std::map<size_t, uint8_t> where = {});
    // Changes bytes of a reply.
    void Patch(uint8_t opcode, size_t at, const Bytes &bytes,
               const std::map<size_t, uint8_t> &where = {});
    // The bytes of that reply.
    [[nodiscard]] Bytes &Data(uint8_t opcode, const std::map<size_t, uint8_t> &where = {});
    // The next request with this opcode gets this answer; each further call is for the one after
    // it.
    void Next(uint8_t opcode, SgAnswer answer);
    // The nth request (from 0) with this opcode from now on gets this answer, the ones before it
    // the usual one.
    void Fail(uint8_t opcode, int nth, SgAnswer answer);
    // Every request with this opcode gets this answer.
    void Always(uint8_t opcode, SgAnswer answer);

    // A descriptor of the device, which the caller closes.
    [[nodiscard]] int Open() const;

    [[nodiscard]] std::vector<SgRequest> RequestsOf(uint8_t opcode) const;
    [[nodiscard]] std::vector<uint8_t> Opcodes() const;  // of all requests in their order

    std::vector<SgRequest> requests;
    int opens = 0;
    int openFlags = 0;  // of the last open

    // What the driver reports about the device, and errno values of calls that fail (0: success).
    int driverVersion = 30536;
    uint32_t host = 0;
    uint32_t idlun = 0;
    std::string hostText;  // SCSI_IOCTL_PROBE_HOST
    int openError = 0;
    int versionError = 0;
    int busNumberError = 0;
    int idlunError = 0;
    int probeError = 0;
    std::optional<uint8_t> claimedSense;  // sb_len_wr; without one, the sense bytes delivered
    // Handles every other ioctl of the device. Without a result, the ioctl fails with ENOTTY.
    std::function<std::optional<int>(unsigned long request, void *arg)> otherIoctl;

    // The number of bytes that are sent at most in reply to an opcode.
    std::map<uint8_t, size_t> cut;
    // For the definitions of open and ioctl.
    [[nodiscard]] bool HasPath(const std::string &path) const;
    [[nodiscard]] bool IsFd(int fd) const;
    int Ioctl(unsigned long request, void *arg);

  private:
    struct Stored {
        uint8_t opcode;
        std::map<size_t, uint8_t> where;
        Bytes data;
    };
    [[nodiscard]] SgAnswer AnswerTo(const SgRequest &request);
    Stored *Find(uint8_t opcode, const std::map<size_t, uint8_t> &where);

    std::vector<std::string> paths_;
    int fd_ = -1;
    uint64_t inode_ = 0;
    std::vector<Stored> stored_;
    std::map<uint8_t, std::deque<std::optional<SgAnswer>>> next_;  // empty: the usual one
    std::map<uint8_t, SgAnswer> always_;
};

// Bytes as text, "12 00 00".
std::string HexText(const Bytes &bytes);

// The times in seconds of all calls of COM_SleepAtLeast since the last call of TakePauses.
std::vector<double> TakePauses();

}  // namespace talvek::test

#endif
