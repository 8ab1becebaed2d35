// call.h: what the two ways of calling share.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

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
    bool Json = false;
};

struct Address {
    std::string Host;
    int32_t Port;
};

Address ParseAddress(const std::string &text);

// What has come so far.
struct CallFigures {
    std::atomic<bool> IsInterrupted = false; // set under the lock
    std::mutex Lock;                         // guards the rest
    std::condition_variable Changed;
    bool IsConnected = false;
    int32_t Replies = 0;
    // Times of the replies.
    double LeastMs = 0;
    double SumMs = 0;
    double GreatestMs = 0;

    void SetConnected();
    void AddReply(double ms);
};

// One reply, or message that the handler got. `request` is empty when a text is sent, here and
// below.
void PrintReply(const CallOptions &options, const hostkit::Bytes &request,
                hostkit::ByteSpan content, double ms);

// Sends all requests at once and prints what comes back until there are as many replies, the
// connection ends, nothing has come for the time-out or the call is interrupted.
void CallAsynchronously(hostkit::Client &client, const hostkit::Bytes &request,
                        const CallOptions &options, CallFigures &figures);

} // namespace nrpc::tool
