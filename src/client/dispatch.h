// client/dispatch.h: the work thread of an asynchronous connection: one call of the user's handler
// for each message, the newest first; with the close message the connection is over.
#pragma once

#include "client/context.h"

namespace nrpc {

void *ClientFunWorkThread(void *arg);

} // namespace nrpc
