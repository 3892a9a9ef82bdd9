#ifndef TALVEK_COMMON_INTERNAL_CANCEL_BARRIER_H
#define TALVEK_COMMON_INTERNAL_CANCEL_BARRIER_H

namespace talvek {

// Calls a function of the library's user, pFn(pArg), and returns its result, in such a way that a
// thread that is cancelled inside pFn comes back through here and runs the destructors of all the
// frames above.
//
// A cancelled thread unwinds frame by frame, which needs each frame's unwind table. C on 32-bit ARM
// is compiled without them: at a callback in C the unwinding would end, and with it the thread,
// while its locks and descriptors stay behind.
int CallBehindBarrier(int (*pFn)(void *pArg), void *pArg);

}  // namespace talvek

#endif
