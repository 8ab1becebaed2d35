// support/jitter.h: moments at which another thread may overtake the calling one: around locks, at
// the start of threads, after waits and pauses. In the product they are nothing. A build with
// NRPC_JITTER, run with a number in the environment's NRPC_JITTER_SEED, now and then yields or
// sleeps there for up to 2 milliseconds.
#pragma once

namespace nrpc {

#if defined(NRPC_JITTER)
void Jitter();
#else
inline void Jitter() {}
#endif

} // namespace nrpc
