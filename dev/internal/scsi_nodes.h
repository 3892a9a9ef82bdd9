#ifndef TALVEK_DEV_INTERNAL_SCSI_NODES_H
#define TALVEK_DEV_INTERNAL_SCSI_NODES_H

#include "dev/device.h"
#include "dev/naming.h"

namespace talvek {

// The block, optical and tape nodes of an enumeration in their order; a null pointer ends them.
inline constexpr unsigned kCandidateNodeCount = 49;
extern const char *const kCandidateNodes[kCandidateNodeCount + 1];

// The log lines for an address that cannot be read. Their arguments are the node's path and the
// error text.
struct AddrLog {
    const char *function;
    const char *busNumberFailed;
    const char *idLunFailed;
};

// Reads the address of the open node `pPath`; false when that fails, which is logged. `addr.host`
// may be stored even then.
bool ReadScsiAddr(const AddrLog &log, const char *pPath, int fd, tScsiAddr &addr);

bool SameScsiAddr(const tScsiAddr &a, const tScsiAddr &b);

// Opens the SCSI generic nodes by number, or by letter on a machine without /dev/sg0.
class SgNodes {
  public:
    // Opens node k and writes its name (DEV_INFO_PATH_SIZE bytes); -1 when it cannot be opened.
    // The nodes must be opened in ascending order from 0 on.
    int Open(unsigned k, char *pName);

  private:
    int naming_ = DEV_SG_NUMBERS;
};

}  // namespace talvek

#endif
