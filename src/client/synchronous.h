// client/synchronous.h: a request that blocks its caller until the reply is there.
#pragma once

#include "client/context.h"

namespace nrpc {

// Sends the request and waits for its reply, under RequestLock (held by the caller), at most
// `timeoutMs` (0 or more) between two steps forward: bytes that the server took, or packets of the
// reply that arrived. 1: `*reply` is the caller's. 0: no reply in time; the server was told if the
// request had gone out. -1: error, or the connection is being torn down.
int32_t SynRequest(ClientContext *context, const uint8_t *data, int32_t length, int32_t timeoutMs,
                   ClientMessage **reply);

} // namespace nrpc
