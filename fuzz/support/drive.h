#ifndef TALVEK_FUZZ_SUPPORT_DRIVE_H
#define TALVEK_FUZZ_SUPPORT_DRIVE_H

#include "fuzz/support/input.h"

namespace talvek::fuzz {

// Answers every ioctl from the bytes of the input while it lives; sleeps take no time. A SCSI
// request takes
//
//   1 byte   0 to 199: the request succeeds; 200 to 229: CHECK CONDITION; 230 to 239: the ioctl
//            fails; from 240 on: it succeeds and the residue is wrong
//   piece    the reply, cut to the length requested; for a CHECK CONDITION, the sense bytes
//
// An interface request takes 16 bytes for its answer, the driver's version none. Every other one
// takes 8, of which the last makes it fail (from 250 on); the name of a host comes after them.
class Drive {
  public:
    explicit Drive(Input &in);
    ~Drive();
    Drive(const Drive &) = delete;
    Drive &operator=(const Drive &) = delete;

    int Ioctl(unsigned long request, void *pArg);

    int requests = 0;  // SCSI requests so far

  private:
    int Execute(void *pArg);

    Input &in_;
};

}  // namespace talvek::fuzz

#endif
