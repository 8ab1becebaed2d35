// server_commands/server_object.h: the object of a server command.
#pragma once

#include "host/frame.h"
#include "server/context.h"

namespace nrpc {

// Holds the server and keeps cancellation away while a command runs: a handler's thread is never
// ended inside the library.
class ServerObject {
  public:
    [[nodiscard]] explicit ServerObject(const HostValue *args) : m_Server(args[0].Slot) {}

    // The server in any state; null when it does not exist.
    HeldObject<ServerContext, kServerObject> &Any() { return m_Server; }
    // The server while it is started, else null.
    ServerContext *Started() {
        return m_Server && m_Server->StartFlag != 0 ? m_Server.Get() : nullptr;
    }

  private:
    CancelShield m_Shield; // comes down last
    HeldObject<ServerContext, kServerObject> m_Server;
};

} // namespace nrpc
