#ifndef TALVEK_DEV_INTERNAL_SCSI_NODES_H
#define TALVEK_DEV_INTERNAL_SCSI_NODES_H

#include "dev/device.h"

namespace talvek {

// The nodes that are looked for, in this order; a null pointer ends them.
extern const char *const kCandidateNodes[];

// What could not be asked of a node.
enum class AddressStep { kDone, kBusNumber, kIdLun };

// Asks a node for its place on its bus. What was asked before a failure is stored, errno is that of
// the failure.
AddressStep ReadScsiAddr(int fd, tScsiAddr &addr);

bool SameScsiAddr(const tScsiAddr &a, const tScsiAddr &b);

// Walks the generic nodes of the machine: numbers, or letters where there is no /dev/sg0.
class SgNodes {
  public:
    // Opens node k and writes its name (12 bytes); -1 when it cannot be opened. The nodes are
    // asked for in ascending order, from 0 on.
    int Open(unsigned k, char *pName);

  private:
    bool numeric_ = true;
};

}  // namespace talvek

#endif
