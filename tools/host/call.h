// call.h: what the two ways of calling share.
#pragma once

#include "program.h"

namespace nrpc::tool {

struct CallOptions {
    std::string Server; // HOST:PORT
    std::string Text;
    std::string File;
    int32_t ByteCount = 0;
    int32_t TimeoutMs = 5000;
    int32_t Repeat = 1;
    bool Asynchronous = false;
};

struct Address {
    std::string Host;
    int32_t Port;
};

Address ParseAddress(const std::string &text);

// Sends all requests at once and prints what comes back until there are as many replies, the
// connection ends or nothing has come for the time-out. `request` is empty when a text is sent.
void CallAsynchronously(hostkit::Client &client, const hostkit::Bytes &request,
                        const CallOptions &options);

} // namespace nrpc::tool
