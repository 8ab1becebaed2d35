// host/host_call.h: the machine's side of calling a function of the host.
//   Convention  the function gets three words (a routine looks at the first only) and may pop one
//               or all of them or leave them; it may change callee-saved registers, the direction
//               flag and the floating-point control words, and leave values on the floating-point
//               stack: all are put back.
#pragma once

#include "host/frame.h"

namespace nrpc {

// `*frame` receives where the stack stands for the time of the call.
HostWord CallHost(HostWord function, HostWord first, HostWord second, HostWord third,
                  HostWord *frame);

#if defined(__i386__)
// A call can be broken off: going on at this address with the stack pointer at `frame` returns
// from CallHost, the result is then of no meaning.
HostWord AfterHostCall();
#endif

} // namespace nrpc
