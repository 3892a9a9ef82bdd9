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

// SCSI devices that are not there, simulated where the code under test opens a node and calls
// ioctl. A program that uses them links simulated_drive, which stands in for open and ioctl; calls
// that concern no simulated device go to the kernel. COM_SleepAtLeast does not sleep in such a
// program but notes what it was asked for.

namespace talvek::test {

// One SG_IO request as it reached the driver.
struct SgRequest {
    Bytes cdb;
    int interfaceId;
    int direction;       // SG_DXFER_...
    unsigned length;     // dxfer_len
    unsigned timeout;    // milliseconds
    unsigned senseSize;  // mx_sb_len
    bool cleared;        // sense buffer and the requested bytes of the reply buffer held only zeros
};

// What the driver does with one request.
struct SgAnswer {
    Bytes data;     // sent as far as the request asks for
    int error = 0;  // not 0: the ioctl itself fails with this errno
    unsigned info = 0;
    uint8_t status = 0;
    uint8_t maskedStatus = 0;
    uint16_t hostStatus = 0;
    uint16_t driverStatus = 0;
    Bytes sense;
    bool countsBytes = true;  // false: a driver that leaves the residue at 0
    int residueError = 0;     // added to the residue by a driver that counts wrongly

    static SgAnswer Data(Bytes data);
    static SgAnswer Error(int error);
    // CHECK CONDITION with 18 bytes of fixed-format sense, as a drive and sg 3.5 report it.
    static SgAnswer Check(uint8_t key, uint8_t asc, uint8_t ascq);
};

// One device behind one or several nodes. A device without replies has the commands that every
// device has (TEST UNIT READY succeeds) and rejects the others: 05h/20h/00h, invalid command.
class SimulatedDrive {
  public:
    // `paths` are the nodes that open finds; while any device lives, no other node of the kinds
    // /dev/sd*, /dev/sr*, /dev/sg*, /dev/nst* and /dev/nosst* is there.
    explicit SimulatedDrive(std::vector<std::string> paths = {});
    ~SimulatedDrive();
    SimulatedDrive(const SimulatedDrive &) = delete;
    SimulatedDrive &operator=(const SimulatedDrive &) = delete;

    // Adds the replies of a file of tests/dev/fixtures, see LoadHex. Later ones win.
    void Load(const std::string &fixture);
    // Sets the whole reply to a command; `where` gives CDB bytes that must have a value, so that
    // two forms of one command can differ.
    void Reply(uint8_t opcode, Bytes data, std::map<size_t, uint8_t> where = {});
    // Changes bytes of a reply that was loaded or set.
    void Patch(uint8_t opcode, size_t at, const Bytes &bytes, std::map<size_t, uint8_t> where = {});
    // The bytes of that reply.
    [[nodiscard]] Bytes &Data(uint8_t opcode, std::map<size_t, uint8_t> where = {});
    // The next request with this opcode gets this answer, each call one more in turn.
    void Next(uint8_t opcode, SgAnswer answer);
    // The nth request (from 0) with this opcode from now on gets this answer, those before it
    // theirs.
    void Fail(uint8_t opcode, int nth, SgAnswer answer);
    // Every request with this opcode gets this answer.
    void Always(uint8_t opcode, SgAnswer answer);

    // Descriptor of the device, to be closed by the caller.
    [[nodiscard]] int Open() const;

    [[nodiscard]] std::vector<SgRequest> RequestsOf(uint8_t opcode) const;
    [[nodiscard]] std::vector<uint8_t> Opcodes() const;  // in the order they came

    std::vector<SgRequest> requests;
    int opens = 0;
    int openFlags = 0;  // of the last open

    // What the driver tells of the device, and errno values of calls that fail (0: they work).
    int driverVersion = 30536;
    uint32_t host = 0;
    uint32_t idlun = 0;
    std::string hostText;  // SCSI_IOCTL_PROBE_HOST
    int openError = 0;
    int versionError = 0;
    int busNumberError = 0;
    int idlunError = 0;
    int probeError = 0;
    std::optional<uint8_t> claimedSense;  // sb_len_wr, instead of the bytes of sense delivered
    // Called for every other ioctl of the device: the result, or nothing to fail with ENOTTY.
    std::function<std::optional<int>(unsigned long request, void *arg)> otherIoctl;

    // At most so many bytes of the replies to this opcode are sent.
    std::map<uint8_t, size_t> cut;
    // The rest of the buffer is overwritten too, though the residue says that it did not arrive.
    bool dirty = false;

    // For the stand-ins of open and ioctl.
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
    std::map<uint8_t, std::deque<std::optional<SgAnswer>>> next_;  // none: the usual answer
    std::map<uint8_t, SgAnswer> always_;
};

// "12 00 00" of bytes, as programs that decode them take it.
std::string HexText(const Bytes &bytes);

// What COM_SleepAtLeast was asked for, in seconds, since the last call of TakePauses.
std::vector<double> TakePauses();

}  // namespace talvek::test

#endif
